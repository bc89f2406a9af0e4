// type_info, bad_cast and bad_typeid in the layout of Microsoft's vcruntime, for libc++ used
// header-only in the MSVC ABI. The compiler's type descriptors are type_info objects; their
// vftable (??_7type_info@@6B@) and the list of undecorated names (__type_info_root_node) are
// defined once per module by the runtime stand-in, as Microsoft's static runtime does; the
// comparisons and names come from vcruntime140.dll.
#pragma once

#include <vcruntime_exception.h>

#pragma pack(push, 8)

extern "C" {
struct __type_info_node;
extern __type_info_node __type_info_root_node;
struct __std_type_info_data {
  const char* _UndecoratedName;
  const char _DecoratedName[1];
};
__declspec(dllimport) int __cdecl __std_type_info_compare(const __std_type_info_data* left,
                                                          const __std_type_info_data* right);
__declspec(dllimport) size_t __cdecl __std_type_info_hash(const __std_type_info_data* data);
__declspec(dllimport) const char* __cdecl __std_type_info_name(__std_type_info_data* data,
                                                               __type_info_node* root);
}

class type_info {
 public:
  type_info(const type_info&) = delete;
  type_info& operator=(const type_info&) = delete;

  size_t hash_code() const noexcept { return __std_type_info_hash(&_Data); }
  bool operator==(const type_info& other) const noexcept {
    return __std_type_info_compare(&_Data, &other._Data) == 0;
  }
  bool operator!=(const type_info& other) const noexcept { return !(*this == other); }
  bool before(const type_info& other) const noexcept {
    return __std_type_info_compare(&_Data, &other._Data) < 0;
  }
  const char* name() const noexcept { return __std_type_info_name(&_Data, &__type_info_root_node); }
  const char* raw_name() const noexcept { return _Data._DecoratedName; }

  virtual ~type_info() noexcept;

 private:
  mutable __std_type_info_data _Data;
};

namespace std {

using ::type_info;

class bad_cast : public exception {
 public:
  bad_cast() noexcept : exception("bad cast", 1) {}
};

class bad_typeid : public exception {
 public:
  bad_typeid() noexcept : exception("bad typeid", 1) {}
};

}  // namespace std

#pragma pack(pop)
