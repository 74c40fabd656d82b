#!/usr/bin/env python3
"""Writes the seed corpora of the IPC read fuzzer (fuzz/corpus/) and of the
service request fuzzer (fuzz/corpus_service/).

Each seed is a script in the input layout that kelo_bpf_ipc_fuzz_script.h
describes, built here from named ops so that the seeds say what they
exercise. Run it after changing the layout; the seeds are committed.
"""
import os
import struct
import sys

BUFFER_SIZES = {32768: 0, 4096: 1, 256: 2, 24: 3}
RESULTS = {0: 0, 1: 12, -2: 13, -3: 14, -1: 15}


def setup(buffer_size=32768, client_loop=False, compact=True, empty_type2=False, close_on_error=False):
    return bytes([BUFFER_SIZES[buffer_size] | (4 if client_loop else 0) | (0 if compact else 8) |
                  (16 if empty_type2 else 0) | (32 if close_on_error else 0)])


def op(kind, result=0):
    return bytes([kind | (RESULTS[result] << 4)])


def u16(v):
    return struct.pack('<H', v)


def request(code, data_len=4, result=0):
    return op(0, result) + bytes([code]) + u16(data_len)


def response(data_len=0, register=True, reuse=False, result_code=0, result=0):
    flags = (1 if register else 0) | (2 if reuse else 0) | ((result_code + 32) << 2)
    return op(1, result) + bytes([flags]) + u16(data_len)


def app(type_, length, result=0):
    return op(type_, result) + u16(length)


def unknown(t, length):
    return op(4) + bytes([t]) + u16(length)


def damage_wrap(selector=0, garbage=0):
    return op(5) + bytes([selector]) + u16(0) + bytes([garbage])


def damage_oversized(extra=0, garbage=0):
    return op(5) + bytes([4]) + u16(extra) + bytes([garbage])


def truncated(type_, length, cut):
    return op(6) + bytes([type_]) + u16(length) + u16(cut)


def deliver(chunk=0):
    return op(7) + u16(chunk)


def small_deliver(chunk):
    assert 1 <= chunk <= 16
    return bytes([9 | ((chunk - 1) << 4)])


def spurious():
    return op(8)


# The service's event: a 40-byte record forwarded as a type-3 package.
EVENT = app(3, 40)

SEEDS = {
    # A client subscribes, unsubscribes and sends an unknown code; events
    # follow, all in one receive.
    'service_conversation': setup() + request(51) + request(52) + request(50) + EVENT * 3 + deliver(),
    # Events whose bytes arrive a few at a time.
    'events_split_bytewise': setup() + EVENT * 4 + small_deliver(1) + small_deliver(3) + small_deliver(7) +
    deliver(5) + deliver(61) + deliver(),
    # The largest frame the service's buffer takes (packageSize 32764),
    # received in two halves, then one that never fits.
    'largest_frame_then_oversized': setup() + app(2, 32756) + deliver(16000) + deliver() + damage_oversized() +
    EVENT + deliver(),
    # A wrapping length in the middle of a batch: the batch is dropped and
    # reading starts again with the next frames.
    'wrapping_length_mid_batch': setup() + EVENT * 2 + damage_wrap(0, 10) + EVENT * 2 + deliver(100) + EVENT +
    damage_wrap(3) + deliver() + EVENT + deliver(),
    # Client side: responses with and without a callback, a repeated id, a
    # response with data, framed by handleAllIpcPackageInBuffer.
    'client_responses': setup(client_loop=True) + response() + response(register=False) +
    response(reuse=True, register=False) + response(data_len=9, result_code=-1) + response(reuse=True) +
    deliver(),
    # A handler failure drops what follows it in the buffer; a readable
    # event with nothing to receive drops a partial frame.
    'handler_failure_and_spurious': setup() + EVENT + app(3, 40, result=-1) + EVENT + request(51, result=-2) +
    deliver() + EVENT + deliver(20) + spurious() + EVENT + deliver(),
    # The service's settings: a handler failure and a failed receive close
    # the connection, and the client connects again.
    'service_settings_close_on_error': setup(close_on_error=True) + EVENT + app(3, 40, result=-1) + EVENT +
    deliver() + EVENT * 2 + deliver(70) + spurious() + request(52) + deliver(),
    # A small buffer without compaction fills up and is reset.
    'uncompacted_small_buffer': setup(buffer_size=256, compact=False) + EVENT * 12 + deliver(100) + deliver(100) +
    deliver(100) + deliver(),
    # The smallest buffer: a request without data is exactly 24 bytes.
    'tiny_buffer_exact_fit': setup(buffer_size=24) + request(51, data_len=0) + request(7, data_len=0) +
    app(3, 12) + small_deliver(5) + deliver(),
    # Unknown types pass silently, as does type 2 with an empty handler.
    'unknown_and_empty_types': setup(buffer_size=4096, empty_type2=True) + unknown(0, 8) + app(2, 16) +
    unknown(255, 0) + EVENT + deliver(),
    # The stream ends inside a frame.
    'truncated_final_frame': setup(buffer_size=4096) + EVENT * 2 + truncated(3, 40, 30) + deliver(),
}


# Seeds of the service's request fuzzer (kelo_bpf_service_request_fuzzer.cc),
# which reads the same ops as a client's: a request's nibble picks its
# argument (index into EVENT_TYPES there; 15 damages its dataSize), a
# deliver op publishes (chunk % 8) + 1 events of type PUBLISHED_TYPES[chunk / 8].
ARG = {0: 0, 1: 1, 2: 2, 3: 3, 6: 5, 50001: 7, 50002: 8, 50005: 10, 12345: 14}
PUBLISH = {0: 0, 2: 1, 3: 2, 6: 3, 50001: 4, 50002: 5, 50005: 6, 12345: 7}


def sub(code, type_=6, data_len=4):
    return bytes([0 | (ARG.get(type_, type_ & 15) << 4), code]) + u16(data_len)


def damaged_request(code=51):
    return bytes([0 | (15 << 4), code]) + u16(4)


def publish(type_, count):
    return deliver(PUBLISH[type_] * 8 + count - 1)


SERVICE_SEEDS = {
    # Subscribe, events flow, unsubscribe, events of the type stop.
    'subscribe_events_unsubscribe': setup() + sub(51, 6) + publish(6, 8) + publish(2, 3) + sub(52, 6) +
    publish(6, 4) + sub(51, 50001) + publish(50001, 2),
    # Pacing on and off, a pacing value that is refused, codes nobody knows.
    'pacing_and_unknown_codes': setup() + sub(55, 1) + sub(51, 3) + publish(3, 8) + sub(55, 0) + sub(55, 2) +
    sub(50, 3) + sub(0, 3) + sub(51, 3, data_len=0) + publish(3, 2),
    # A request whose dataSize disagrees closes the connection; the next one
    # starts without subscriptions.
    'damaged_request_while_subscribed': setup() + sub(51, 6) + publish(6, 5) + damaged_request() + publish(6, 5) +
    sub(51, 6) + publish(6, 3),
    # A frame whose level-2 size disagrees with its length field.
    'damaged_level2_size': setup() + sub(51, 0) + publish(0, 4) + app(3, 40, result=-1) + publish(0, 2),
    # A length that can never be received, packages clients do not send,
    # and a frame cut short.
    'damaged_length_stray_and_truncated': setup() + sub(51, 50002) + response() + unknown(3, 8) + app(2, 16) +
    publish(50002, 3) + damage_wrap(1, 6) + sub(51, 50002) + publish(50002, 2) + damage_oversized(3) +
    truncated(0, 16, 9),
    # Loss reports subscribed, a wait for everything owed, a large request.
    'loss_subscription_and_large_request': setup() + sub(51, 50005) + sub(51, 12345, data_len=3000) +
    publish(12345, 8) + spurious() + publish(50005, 1),
}


def write(out, seeds):
    os.makedirs(out, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(out, name), 'wb') as f:
            f.write(data)
    print('wrote %d seeds to %s' % (len(seeds), out), file=sys.stderr)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    write(os.path.join(here, 'corpus'), SEEDS)
    write(os.path.join(here, 'corpus_service'), SERVICE_SEEDS)


if __name__ == '__main__':
    main()
