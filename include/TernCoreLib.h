#ifndef TERNCORELIB_H_
#define TERNCORELIB_H_

// The whole public interface of TernCoreLib.dll.

#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "foundation/event.h"
#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "foundation/system_text.h"
#include "foundation/temp_string.h"
#include "foundation/x_array.h"
#include "sync/bit_mask.h"
#include "sync/lock.h"
#include "sync/sync_table.h"

#endif  // TERNCORELIB_H_
