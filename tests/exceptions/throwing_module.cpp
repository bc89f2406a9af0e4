// A DLL linked exactly like TernCoreLib.dll whose one function raises _com_error, the exception
// that the XML classes let reach the application. The test beside it checks that the exception
// crosses the module boundary and is caught.
#include <comdef.h>

extern "C" __declspec(dllexport) void TernRaiseComError(HRESULT hr) { _com_issue_error(hr); }
