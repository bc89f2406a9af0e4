// What the compiler's run-time type information needs of each module: the vftable of type_info,
// to which every type descriptor points (the compiler names it and leaves it to the runtime), and
// the list of names that type_info::name() undecorates, which vcruntime140.dll keeps per module.

#include <vcruntime_typeinfo.h>
#include <windows.h>

#include "startup.h"

extern "C" __declspec(dllimport) void __cdecl __std_type_info_destroy_list(SLIST_HEADER* root);

struct __type_info_node {
  SLIST_HEADER names;
};
extern "C" __type_info_node __type_info_root_node = {};

type_info::~type_info() noexcept {}

namespace {

// The vftable's one slot, the scalar deleting destructor, in the compiler's calling convention for
// it (this in ECX on i686). Type descriptors are static data, so nothing calls it in practice.
#if defined(_M_IX86)
#define TERN_THISCALL __thiscall
#else
#define TERN_THISCALL
#endif
void* TERN_THISCALL DestroyTypeInfo(type_info* self, unsigned int flags) {
  self->~type_info();
  if (flags & 1) ::operator delete(self);
  return self;
}

}  // namespace

// The symbol the compiler names for the vftable; it addresses the first slot.
extern "C" const void* const tern_type_info_vftable[] __asm__("??_7type_info@@6B@");
extern "C" const void* const tern_type_info_vftable[] = {
    reinterpret_cast<const void*>(&DestroyTypeInfo)};

namespace tern_crt {
void DestroyTypeNames() { __std_type_info_destroy_list(&__type_info_root_node.names); }
}  // namespace tern_crt
