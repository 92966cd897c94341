// Tells the service manager how the node is doing, by the datagram protocol of
// sd_notify(3).
//
// Threads: free functions without state; the environment is read at each call.

#pragma once

#include <string_view>

namespace norvel::node {

// Sends `state`, such as "READY=1", to the socket that NOTIFY_SOCKET names (a
// path, or "@" and an abstract name). False when there is none or it does not
// take it; never waits.
bool notify_service_manager(std::string_view state);

}  // namespace norvel::node
