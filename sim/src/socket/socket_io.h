// Unix-domain-socket plumbing shared by kavo-simd's server and its clients.
#ifndef KAVO_SIM_SOCKET_IO_H
#define KAVO_SIM_SOCKET_IO_H

#include <cstddef>
#include <vector>

#include "kavo/kavo_api.h"
#include "kavo_sim/gen/kavo_sim_types.h"

namespace kavo_sim::sock {

constexpr UINT32 MAX_MESSAGE = SIM_MESSAGE_HEADER_SIZE + 4 * SIM_MESSAGE_MAX_PAYLOAD_WORDS;

bool send_all(int fd, const void* data, size_t n);
bool recv_all(int fd, void* data, size_t n);
/* Connects to a listening socket; -1 when it cannot. */
int connect_to(const char* path);

/* One request and its reply over a connected socket. payload_in words follow
   the header; the reply's payload lands in payload_out (resized). false when
   the connection failed or the reply is malformed. */
bool transact(int fd, sim_message_header_t& hdr, const UINT32* payload_in, UINT32 words_in,
              std::vector<UINT32>* payload_out);

} // namespace kavo_sim::sock

#endif
