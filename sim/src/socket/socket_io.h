// kavo-simd's protocol, shared by the daemon and its clients: the framing of
// messages, the daemon's handling of one connection (session) and the client's
// exchange of one request and its reply. Both sides are written without the
// socket's life around them, so that the fuzz targets drive the same code.
#ifndef KAVO_SIM_SOCKET_IO_H
#define KAVO_SIM_SOCKET_IO_H

#include <cstddef>
#include <sys/types.h>
#include <sys/uio.h>

#include "kavo/kavo_api.h"
#include "kavo_sim/gen/kavo_sim_types.h"

namespace kavo_sim::sock {

constexpr UINT32 HEADER_WORDS = SIM_MESSAGE_HEADER_SIZE / 4;
constexpr UINT32 MAX_MESSAGE = SIM_MESSAGE_HEADER_SIZE + 4 * SIM_MESSAGE_MAX_PAYLOAD_WORDS;
constexpr UINT32 MAX_MESSAGE_WORDS = MAX_MESSAGE / 4;

bool send_all(int fd, const void* data, size_t n);
/* Receives into the iovecs like readv. An answer usually comes within
   microseconds: it is polled for up to RECEIVE_SPIN_US (yielding the processor
   between tries) before the call sleeps, which spares both sides a wake-up
   from another processor on each message. */
constexpr int RECEIVE_SPIN_US = 50;
ssize_t receive(int fd, iovec* iov, int count);
/* Connects to a listening socket; -1 when it cannot. */
int connect_to(const char* path);

/* Why a length word cannot frame a message; null when it can. */
const char* framing_error(UINT32 length);

/* What the daemon does with a connection after a message. */
struct verdict {
    bool close = false;    // malformed: the reply goes out, then the connection closes
    bool shutdown = false; // SHUTDOWN: the reply goes out, then the daemon stops
    char reason[96] = {};  // why it closes, for the daemon's log
};

/* Handles one message of `size` bytes (4-aligned, at most MAX_MESSAGE) from
   client `client` (0: not tracked as a chip's owner) and writes its reply,
   header and payload, to `reply` (room for MAX_MESSAGE_WORDS). Returns the
   reply's size in bytes. A malformed message changes nothing, is answered with
   VELT_ERR_INVALID_ARGS and sets out.close with the reason. client_fd is the
   client's socket (-1: none): a chip whose owner's peer has hung up, though
   the owner's thread has not seen it yet, passes to the next client. */
size_t handle_message(const UINT32* msg, size_t size, UINT32 client, UINT32* reply, verdict& out,
                      int client_fd = -1);

/* Frees every chip `client` owns. */
void release_chips(UINT32 client);

/* Words of memory mapped for one connection and given back to the system
   when it ends, so that connections coming and going leave nothing behind in
   the allocator. The last word is followed by an inaccessible page. */
class page_words {
  public:
    explicit page_words(size_t words);
    ~page_words();
    page_words(const page_words&) = delete;
    page_words& operator=(const page_words&) = delete;
    UINT32* get() const { return words_; }

  private:
    void* map_ = nullptr;
    size_t map_size_ = 0;
    UINT32* words_ = nullptr;
};

/* The daemon's side of one connection: the bytes received so far, cut into
   messages, each handled and answered through `send`. No allocation per
   message: both buffers are mapped once per connection. */
class session {
  public:
    using send_fn = bool (*)(void* ctx, const void* data, size_t size);

    explicit session(UINT32 client, int fd = -1);
    ~session(); // frees the chips this connection owned
    session(const session&) = delete;
    session& operator=(const session&) = delete;

    /* Where the next received bytes go, and how many fit (never 0). */
    UINT8* space(size_t& room);
    /* Handles the complete messages among the `n` bytes just received and
       those before; stops at the first that closes the connection. false when
       a reply could not be sent (the peer is gone). */
    bool received(size_t n, send_fn send, void* ctx, verdict& out);
    /* Forgets a message begun and frees the chips this client owned, as if
       the connection had ended and a new one had begun (the buffers stay). */
    void reset();
    /* Bytes of a message begun but not complete. */
    size_t pending() const { return have_; }
    UINT32 client() const { return client_; }

  private:
    UINT32 client_;
    int fd_;
    page_words in_, reply_;
    size_t have_ = 0; // bytes in in_
};

/* The client's side: one request and its reply over connected socket fd.
   The request is hdr (its length set here) and words_in payload words; the
   reply's header replaces hdr and its payload, at most out_words words, lands
   in out (*got: how many). false when the connection failed or the reply is
   not a well-formed answer to this request (wrong kind, device id or length,
   more payload than asked for, bytes after it): the caller closes the
   connection, since what follows cannot be framed. */
bool exchange(int fd, sim_message_header_t& hdr, const UINT32* in, UINT32 words_in, UINT32* out, UINT32 out_words,
              UINT32* got);

/* Attaches the process's socket callouts to an already connected fd (no
   greeting), for the fuzz target of the client's decoding; the table. */
tavo_callout_api_st* callouts_on_fd(int fd);
/* The one-shot commands' exchange on a connected fd: status, or VELT_ERR_FAIL
   when the reply is malformed. */
VELT_ERROR command_on_fd(int fd, sim_message_header_t& h, const UINT32* in, UINT32 words, UINT32* out,
                         UINT32 out_words, UINT32* got);

} // namespace kavo_sim::sock

#endif
