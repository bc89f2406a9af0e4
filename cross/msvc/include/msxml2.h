// Wine's <msxml2.h> defines ISAXXMLFilter before its base class ISAXXMLReader, which a C++
// compiler refuses. Nothing here uses the SAX filter: it stays declared, not defined.
#pragma once
#define __ISAXXMLFilter_INTERFACE_DEFINED__
#include_next <msxml2.h>
