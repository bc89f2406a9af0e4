// The few definitions of MinGW's <_mingw.h> that its comdef.h, comutil.h and comip.h use, which
// serve as the COM support classes (_com_error, _bstr_t, _variant_t, _com_ptr_t) in the MSVC
// ABI here: Wine ships none.
#pragma once
#define __MINGW_EXTENSION
#define __MINGW_SELECTANY __declspec(selectany)
#ifndef __EXCEPTIONS
#define __EXCEPTIONS 1
#endif
#define __LONG32 long
