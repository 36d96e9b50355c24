#!/usr/bin/env python3
"""Writes the seed inputs of the fuzz targets into fuzz/corpus/<target>/:
well-formed log-buffer blocks and kavo-simd conversations that the fuzzer then
bends out of shape.

  python3 fuzz/make_seeds.py
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))
CONSOLE_COOKIE, STATS_COOKIE, DBG_LOG_COOKIE = 0xFACEF00D, 0xFADED0FF, 0xF00DF00D
HEADER_WORDS = 17  # the console ring starts at word 17 of the block


def words(*values):
    return b"".join(struct.pack("<I", v & 0xFFFFFFFF) for v in values)


def record(text):
    """One console record: separator, count, text packed 4 bytes per word
    (NUL-padded; a length that is a multiple of 4 carries no NUL)."""
    data = text.encode()
    n = max(1, (len(data) + 3) // 4)
    return words(0, n) + data.ljust(4 * n, b"\0")


def console_frame(op, word_offset, payload):
    assert len(payload) % 4 == 0 and len(payload) // 4 < 256
    return bytes([op]) + struct.pack("<H", word_offset) + bytes([len(payload) // 4]) + payload


def console_seeds():
    ring = record("boot\n") + record("abcd") + record("link up on port 3\n")
    n = len(ring) // 4
    yield "records", console_frame(2, HEADER_WORDS, ring) + console_frame(1, 1, words(0, n)) + \
        console_frame(0, HEADER_WORDS + n, record("more\n")) + console_frame(0, 2, words(n + 4))
    # A ring near its end: records, the wrap marker, then newer records from word 0.
    tail = record("old text at the end")
    start = 8192 - len(tail) // 4 - 2
    newer = record("new at 0\n")
    yield "wrapped", console_frame(2, HEADER_WORDS + start, tail + words(0, 0)) + \
        console_frame(2, HEADER_WORDS, newer) + console_frame(1, 1, words(1, len(newer) // 4))
    yield "writer", bytes([4]) + b"\0\0" + bytes([3]) + b"hello world\n" + bytes([4]) + b"\0\0" + bytes([1]) + b"abc\0"


def fw_log_block():
    stats_off, desc_off, desc_size = 200, 400, 40
    entries = [(512, 8), (768, 8)]
    block = bytearray(1024)
    block[0:68] = words(0, 0, 0, 8192 * 4, 68,
                        STATS_COOKIE, 2, 80, stats_off,
                        DBG_LOG_COOKIE, len(entries), desc_size, desc_off,
                        0, 0, 0, 0)
    for i, (name, num, started) in enumerate([(b"cmd", 3, 0), (b"idle", 0, 1)]):
        rec = name.ljust(28, b"\0") + bytes([1, started, 0, 0]) + words(0, 100) + \
            struct.pack("<QQII", num, 1810 * num, 1800, 1820) + struct.pack("<QII", 181 * num, 150, 200)
        block[stats_off + 80 * i: stats_off + 80 * (i + 1)] = rec
    for i, (offset, count) in enumerate(entries):
        block[desc_off + desc_size * i: desc_off + desc_size * (i + 1)] = \
            b"log%d".ljust(20, b"\0") % i + words(count, offset, 5, 0) + words(0)
        for k in range(count):
            code = [6413, 6403, 6406, 6149, 6150, 6151, 6152, 65535][k]
            block[offset + 32 * k: offset + 32 * (k + 1)] = \
                struct.pack("<QHH", 1000 * k + 500 * i, 0, code) + words(k, 0x1234, 42, 0x100, 0x200)
    return bytes(block)


def fw_log_seeds():
    block = fw_log_block()
    image = struct.pack("<H", len(block)) + block

    def frame(op, offset, payload):
        return bytes([op]) + struct.pack("<I", offset)[:3] + bytes([len(payload)]) + payload

    # Show, advance one log past a wrap, show again; then a restart.
    yield "two_logs", image + frame(0, 400 + 28, words(7, 1)) + frame(1, 0, b"") + \
        frame(0, 400 + 28, words(2, 0)) + frame(4, 0, b"") + b"\0"
    yield "console_and_logs", image + frame(4, 0, words(CONSOLE_COOKIE)) + b"\0"


def reply_seeds():
    """Replies of the hostile chip: [variation][mode][8 header words][payload]."""
    # A well-formed echo of device 0: device id, sequence, operation, result,
    # mode, value, value2, data_size (the sequence number rarely matches).
    yield "payload_reply", bytes([1, 0]) + words(0, 0, 0xC, 0, 0, 0, 0, 192) + bytes(192)
    yield "short_tail", bytes([4, 0]) + words(0, 0, 0, 0, 0, 0, 0, 7) + bytes(range(1, 8))
    yield "oversize", bytes([4, 0]) + words(0, 0, 65530, 0, 0, 0, 0, 65500)
    yield "seeded", bytes([3, 1]) + words(12345)


# kavo-simd's protocol: a 24-byte header (length, command, device id, status,
# arg0, arg1), then the payload words.
HELLO, REG_READ, REG_WRITE, BURST_READ, BURST_WRITE, CHIP_CREATE, CHIP_DESTROY, CHIP_INFO, FAULT_SET, REPLY, \
    SHUTDOWN = range(11)
DEVICE_ID_REG = 0xF00380


def message(command, device, arg0=0, arg1=0, payload=(), status=0):
    return words(24 + 4 * len(payload), command, device, status, arg0, arg1, *payload)


def simd_server_seeds():
    """[chunk][owner] then a client's byte stream."""
    bus = message(HELLO, 0) + message(REG_READ, 0, DEVICE_ID_REG) + message(REG_WRITE, 0, 0xF00320, 5) + \
        message(BURST_WRITE, 0, 0x1000, 4, (1, 2, 3, 4)) + message(BURST_READ, 0, 0x1000, 4) + \
        message(CHIP_INFO, 0) + message(FAULT_SET, 0, 2, 0, (1, 0)) + message(REG_READ, 0, DEVICE_ID_REG)
    yield "bus", bytes([0, 0]) + bus
    yield "busy_in_pieces", bytes([5, 1]) + message(REG_READ, 1, DEVICE_ID_REG) + \
        message(BURST_WRITE, 1, 0x2000, 2, (7, 8)) + message(CHIP_INFO, 1)
    # (a chip destroyed and made again costs more than a whole input: none here)
    yield "chips", bytes([0, 0]) + message(CHIP_CREATE, 5, 0, 0, (0x6100, 1, 0, 0)) + message(REG_READ, 5, DEVICE_ID_REG) + \
        message(CHIP_DESTROY, 9) + message(SHUTDOWN, 0)
    yield "malformed", bytes([3, 0]) + message(REG_READ, 0, DEVICE_ID_REG) + words(7, 1, 0, 0, 0, 0)


def simd_client_seeds():
    """[mode][n][n operations] then the daemon's byte stream."""
    def reply(device, arg0=0, payload=(), status=0):
        return message(REPLY, device, arg0, 0, payload, status)
    # Callouts on chip 3: read, write, burst read of 4 words (op 2 + 4 * 3), burst write of 1.
    ops = bytes([0, 1, 2 + 4 * 3, 3])
    yield "callouts", bytes([1, len(ops)]) + ops + reply(3, 0x06100000) + reply(3) + \
        reply(3, 0, (9, 8, 7, 6)) + reply(3)
    yield "callouts_refused", bytes([1, len(ops)]) + ops + reply(3, 0, (), 0xB5000002) + reply(3, 0, (), 0x48) + \
        reply(3, 0, (), 0xB5000003) + reply(3)
    # One-shot commands on device 0: HELLO, CHIP_INFO (10 words), FAULT_SET, CHIP_CREATE.
    ops = bytes([0, 1, 2, 3])
    yield "commands", bytes([0, len(ops)]) + ops + message(REPLY, 0, 1, 32) + reply(0, 0, tuple(range(10))) + \
        reply(0) + reply(0, 0, (), 0x49)


def write(target, seeds):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds:
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)


if __name__ == "__main__":
    write("fuzz_console_reader", console_seeds())
    write("fuzz_fw_log", fw_log_seeds())
    write("fuzz_reply", reply_seeds())
    write("fuzz_simd_server", simd_server_seeds())
    write("fuzz_simd_client", simd_client_seeds())
