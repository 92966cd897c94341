// What one RPC server grants to all who connect to it, whatever they send.
//
// Bodies count with the bytes that have come. The text that holds one may have
// reserved as much again, which no byte was written to and so takes no memory
// beside addresses.

#pragma once

#include <cstddef>
#include <cstdint>

namespace norvel::rpc {

struct ServerLimits {
  size_t connections = 256;
  size_t header_bytes = size_t{64} * 1024;         // one header block, its blank line included
  size_t body_bytes = size_t{4} * 1024 * 1024;     // one body; none is read before the credentials are verified
  size_t bodies_bytes = size_t{64} * 1024 * 1024;  // all bodies that are held, each until its call is done
  size_t body_bytes_free = size_t{64} * 1024;      // of each body not counted, so that short requests find room
  size_t echo_bytes = 1'024;                       // an id and a method name: what an answer repeats
  size_t values = 200'000;                         // JSON values of one body
  // Of all bodies that are worked on. A value takes some 200 bytes of memory.
  size_t values_at_once = 2'000'000;
  size_t values_free = 1'000;  // a body of at most as many characters waits for none
  size_t light_calls = 32;     // that run at once; others wait
  size_t heavy_calls = 2;
  size_t answers_bytes = size_t{256} * 1024 * 1024;    // all answers that wait for their clients
  int64_t request_ms = 30'000;                         // from accept to the last byte of the request, TLS included
  int64_t answer_ms = 30'000;                          // for the client to take the answer
  int64_t closing_ms = 1'000;                          // for the client to close after the answer
  size_t closing_bytes_max = size_t{8} * 1024 * 1024;  // what a client may still send meanwhile
};

// A block of 1,000,000 bytes as hexadecimal text must fit.
static_assert(ServerLimits{}.body_bytes > 2 * size_t{1'000'000});
static_assert(ServerLimits{}.values_at_once >= ServerLimits{}.values);

}  // namespace norvel::rpc
