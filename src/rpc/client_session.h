// What happens on one connection of an RPC server: TLS, the request, the
// credentials, the call, the answer.
//
// Threads: free functions; what a SessionContext holds is constant or safe from
// any thread.

#pragma once

#include <memory>
#include <string>

#include "rpc/basic_auth.h"
#include "rpc/connection_slots.h"
#include "rpc/method_table.h"
#include "rpc/server_limits.h"
#include "rpc/tls_context.h"
#include "rpc/work_budget.h"

namespace norvel::rpc {

struct SessionContext {
  explicit SessionContext(const ServerLimits& of_server)
      : limits(of_server),
        values(of_server.values_at_once),
        light_calls(of_server.light_calls),
        heavy_calls(of_server.heavy_calls) {}

  const ServerLimits limits;
  BasicAuth auth;  // set before the server starts, like `tls`
  TlsContext tls;  // null: plain connections
  MethodTable methods;
  WorkBudget values;  // JSON values of the requests that are worked on

  // Calls that run, each until its answer is written down and its result gone.
  WorkBudget light_calls;
  WorkBudget heavy_calls;
};

// The reason phrase is " OK" for every status.
std::string build_http_response(const std::string& body, int status);

// Serves the connection of `ticket`. Throws what the header block's numbers and
// memory make it throw; the connection is then to be closed.
void serve_connection(SessionContext& context, ConnectionTicket& ticket, const std::string& client_address);

}  // namespace norvel::rpc
