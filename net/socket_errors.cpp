#include "net/socket_util.h"

namespace KVT {
namespace {

// One row per Windows Sockets error number that has a sentence, in ascending order.
struct ErrorText {
  int code;
  wchar_t const* text;
};

constexpr ErrorText kErrorTexts[] = {
    {10004, L"A blocking operation was interrupted by a call to WSACancelBlockingCall."},
    {10009, L"The file handle supplied is not valid."},
    {10013,
     L"An attempt was made to access a socket in a way forbidden by its access permissions."},
    {10014,
     L"The system detected an invalid pointer address in attempting to use a pointer argument "
     L"in a call."},
    {10022, L"An invalid argument was supplied."},
    {10024, L"Too many open sockets."},
    {10035, L"A non-blocking socket operation could not be completed immediately."},
    {10036, L"A blocking operation is currently executing."},
    {10037,
     L"An operation was attempted on a non-blocking socket that already had an operation in "
     L"progress."},
    {10038, L"An operation was attempted on something that is not a socket."},
    {10039, L"A required address was omitted from an operation on a socket."},
    {10040,
     L"A message sent on a datagram socket was larger than the internal message buffer or some "
     L"other network limit, or the buffer used to receive a datagram into was smaller than the "
     L"datagram itself."},
    {10041,
     L"A protocol was specified in the socket function call that does not support the semantics "
     L"of the socket type requested."},
    {10042,
     L"An unknown, invalid, or unsupported option or level was specified in a getsockopt or "
     L"setsockopt call."},
    {10043,
     L"The requested protocol has not been configured into the system, or no implementation for "
     L"it exists."},
    {10044, L"The support for the specified socket type does not exist in this address family."},
    {10045, L"The attempted operation is not supported for the type of object referenced."},
    {10046,
     L"The protocol family has not been configured into the system or no implementation for it "
     L"exists."},
    {10047, L"An address incompatible with the requested protocol was used."},
    {10048,
     L"Only one usage of each socket address (protocol/network address/port) is normally "
     L"permitted."},
    {10049, L"The requested address is not valid in its context."},
    {10050, L"A socket operation encountered a dead network."},
    {10051, L"A socket operation was attempted to an unreachable network."},
    {10052,
     L"The connection has been broken due to keep-alive activity detecting a failure while the "
     L"operation was in progress."},
    {10053, L"An established connection was aborted by the software in your host machine."},
    {10054, L"An existing connection was forcibly closed by the remote host."},
    {10055,
     L"An operation on a socket could not be performed because the system lacked sufficient "
     L"buffer space or because a queue was full."},
    {10056, L"A connect request was made on an already connected socket."},
    {10057,
     L"A request to send or receive data was disallowed because the socket is not connected and "
     L"(when sending on a datagram socket using a sendto call) no address was supplied."},
    {10058,
     L"A request to send or receive data was disallowed because the socket had already been "
     L"shut down in that direction with a previous shutdown call."},
    {10059, L"Too many references to some kernel object."},
    {10060,
     L"A connection attempt failed because the connected party did not properly respond after a "
     L"period of time, or established connection failed because connected host has failed to "
     L"respond."},
    {10061, L"No connection could be made because the target machine actively refused it."},
    {10062, L"Cannot translate name."},
    {10063, L"Name component or name was too long."},
    {10064, L"A socket operation failed because the destination host was down."},
    {10065, L"A socket operation was attempted to an unreachable host."},
    {10066, L"Cannot remove a directory that is not empty."},
    {10067,
     L"A Windows Sockets implementation may have a limit on the number of applications that may "
     L"use it simultaneously."},
    {10068, L"Ran out of quota."},
    {10069, L"Ran out of disk quota."},
    {10070, L"File handle reference is no longer available."},
    {10071, L"Item is not available locally."},
    {10091,
     L"WSAStartup cannot function at this time because the underlying system it uses to provide "
     L"network services is currently unavailable."},
    {10092, L"The Windows Sockets version requested is not supported."},
    {10093, L"Either the application has not called WSAStartup, or WSAStartup failed."},
    {10101,
     L"Returned by WSARecv or WSARecvFrom to indicate the remote party has initiated a graceful "
     L"shutdown sequence."},
    {10102, L"No more results can be returned by WSALookupServiceNext."},
    {10103,
     L"A call to WSALookupServiceEnd was made while this call was still processing. The call "
     L"has been canceled."},
    {10104, L"The procedure call table is invalid."},
    {10105, L"The requested service provider is invalid."},
    {10106, L"The requested service provider could not be loaded or initialized."},
    {10107, L"A system call has failed."},
    {10108, L"No such service is known. The service cannot be found in the specified name space."},
    {10109, L"The specified class was not found."},
    {10110, L"No more results can be returned by WSALookupServiceNext."},
    {10111,
     L"A call to WSALookupServiceEnd was made while this call was still processing. The call "
     L"has been canceled."},
    {10112, L"A database query failed because it was actively refused."},
    {11001, L"No such host is known."},
    {11002,
     L"This is usually a temporary error during hostname resolution and means that the local "
     L"server did not receive a response from an authoritative server."},
    {11003, L"A non-recoverable error occurred during a database lookup."},
    {11004, L"The requested name is valid, but no data of the requested type was found."},
    {11005, L"At least one reserve has arrived."},
    {11006, L"At least one path has arrived."},
    {11007, L"There are no senders."},
    {11008, L"There are no receivers."},
    {11009, L"Reserve has been confirmed."},
    {11010, L"Error due to lack of resources."},
    {11011, L"Rejected for administrative reasons - bad credentials."},
    {11012, L"Unknown or conflicting style."},
    {11013, L"Problem with some part of the filterspec or providerspecific buffer in general."},
    {11014, L"Problem with some part of the flowspec."},
    {11015, L"General QOS error."},
    {11016, L"An invalid or unrecognized service type was found in the flowspec."},
    {11017, L"An invalid or inconsistent flowspec was found in the QOS structure."},
    {11018, L"Invalid QOS provider-specific buffer."},
    {11019, L"An invalid QOS filter style was used."},
    {11020, L"An invalid QOS filter type was used."},
    {11021, L"An incorrect number of QOS FILTERSPECs were specified in the FLOWDESCRIPTOR."},
    {11022,
     L"An object with an invalid ObjectLength field was specified in the QOS provider-specific "
     L"buffer."},
    {11023, L"An incorrect number of flow descriptors was specified in the QOS structure."},
    {11024, L"An unrecognized object was found in the QOS provider-specific buffer."},
    {11025, L"An invalid policy object was found in the QOS provider-specific buffer."},
    {11026, L"An invalid QOS flow descriptor was found in the flow descriptor list."},
    {11027, L"An invalid or inconsistent flowspec was found in the QOS provider specific buffer."},
    {11028, L"An invalid FILTERSPEC was found in the QOS provider-specific buffer."},
    {11029, L"An invalid shape discard mode object was found in the QOS provider specific buffer."},
    {11030, L"An invalid shaping rate object was found in the QOS provider-specific buffer."},
    {11031, L"A reserved policy element was found in the QOS provider-specific buffer."},
};

}  // namespace

wchar_t const* CSocketUtil::PrintSocketError(int code) {
  // Binary search over the sorted table: constant texts, no allocation.
  size_t low = 0;
  size_t high = sizeof(kErrorTexts) / sizeof(kErrorTexts[0]);
  while (low < high) {
    const size_t middle = low + (high - low) / 2;
    if (kErrorTexts[middle].code == code) return kErrorTexts[middle].text;
    if (kErrorTexts[middle].code < code) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return L"Unknown socket error";
}

}  // namespace KVT
