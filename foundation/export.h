#ifndef TERNCORELIB_FOUNDATION_EXPORT_H_
#define TERNCORELIB_FOUNDATION_EXPORT_H_

// Marks what TernCoreLib.dll exports. The library's own sources define TERNCORELIB_BUILDING;
// applications see imports.
#if defined(TERNCORELIB_BUILDING)
#define TERN_API __declspec(dllexport)
#else
#define TERN_API __declspec(dllimport)
#endif

// The exported class templates (CBuffer, CSearchQuery) are exported one instantiation at a time,
// and the two ABIs put the export in different places. GCC takes it on the instantiation
// declaration that every user of the header sees, the DLL included, and the one instantiation
// definition in the DLL's source inherits it. Microsoft's ABI exports the definition itself and
// ignores an exported declaration (clang warns, and the DLL then exports none of the members);
// there only applications declare the instantiation, with dllimport. So a header declares
//   TERN_EXTERN_TEMPLATE(CBuffer<char>)
// and the one source that instantiates it defines
//   template class TERN_TEMPLATE_EXPORT CBuffer<char>;
#if defined(_MSC_VER) && defined(TERNCORELIB_BUILDING)
#define TERN_EXTERN_TEMPLATE(instance)
#define TERN_TEMPLATE_EXPORT __declspec(dllexport)
#else
#define TERN_EXTERN_TEMPLATE(instance) extern template class TERN_API instance;
#define TERN_TEMPLATE_EXPORT
#endif

#endif  // TERNCORELIB_FOUNDATION_EXPORT_H_
