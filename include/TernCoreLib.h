#ifndef TERNCORELIB_H_
#define TERNCORELIB_H_

// The whole public interface of TernCoreLib.dll.

#include "buffer/buffer.h"
#include "buffer/search_query.h"
#include "foundation/base64.h"
#include "foundation/event.h"
#include "foundation/memory.h"
#include "foundation/string_util.h"
#include "foundation/system_text.h"
#include "foundation/temp_string.h"
#include "foundation/url_unescape.h"
#include "foundation/wide_string.h"
#include "foundation/x_array.h"
#include "net/client_socket.h"
#include "net/length_msg.h"
#include "net/server_socket.h"
#include "net/socket.h"
#include "net/socket_msg.h"
#include "net/socket_util.h"
#include "net/winsock.h"
#include "sync/bit_mask.h"
#include "sync/lock.h"
#include "sync/sync_table.h"
#include "xml/xml.h"
#include "xml/xml_tag.h"
#include "xml/xml_token.h"

#endif  // TERNCORELIB_H_
