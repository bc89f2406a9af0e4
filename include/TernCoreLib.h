#ifndef TERNCORELIB_H_
#define TERNCORELIB_H_

// The whole public interface of TernCoreLib.dll.

#include "buffer/buffer.h"
#include "foundation/event.h"
#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "foundation/system_text.h"
#include "foundation/temp_string.h"
#include "foundation/x_array.h"
#include "sync/bit_mask.h"
#include "sync/lock.h"
#include "sync/sync_table.h"
#include "xml/xml.h"
#include "xml/xml_tag.h"
#include "xml/xml_token.h"

#endif  // TERNCORELIB_H_
