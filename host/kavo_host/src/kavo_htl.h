/* The host end of the request/response link to the firmware: copies a request
   into the mailbox in on-chip RAM, rings the doorbell, waits for the reply and
   checks that it belongs to the request. One exchange at a time per device:
   the device lock is held around every exchange made through kavo_device::send. */
#ifndef KAVO_HTL_H
#define KAVO_HTL_H

#include "kavo/kavo_api.h"

class kavo_device;

/* Host-side images of the two mailboxes; the burst operations always work on
   whole, word-aligned buffers. */
typedef UINT32 velt_shared_memory_htl_request_t[VELT_SHARED_MEMORY_HTL_REQUEST_SIZE / 4];
typedef UINT32 velt_shared_memory_htl_response_t[VELT_SHARED_MEMORY_HTL_RESPONSE_SIZE / 4];

class kavo_htl {
  public:
    kavo_htl(UINT32 device_id, kavo_device* device);
    ~kavo_htl();
    kavo_htl(const kavo_htl&) = delete;
    kavo_htl& operator=(const kavo_htl&) = delete;

    /* Handshake with started firmware: a STATUS exchange, then VELT_FW_OPTIONS. */
    VELT_ERROR connect();
    /* Marks the link connected without any exchange (firmware already running). */
    VELT_ERROR attach();
    void disconnect();
    bool is_connected() const { return _connected != 0; }

    /* One complete exchange: stamps the sequence number, writes, notifies, reads the reply. */
    VELT_ERROR request_send(kavo_htl_request_t& request, kavo_htl_response_t& response);
    VELT_ERROR write_request(const kavo_htl_request_t* request);
    VELT_ERROR notify_device();
    VELT_ERROR response_get(kavo_htl_response_t& response);

  private:
    BOOL8 _connected;
    UINT32 device_id;
    UINT32 _sequence_num;
    velt_shared_memory_htl_request_t _request;
    velt_shared_memory_htl_response_t _response;
    kavo_device* _device;
};

#endif /* KAVO_HTL_H */
