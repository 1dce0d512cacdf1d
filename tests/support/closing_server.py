#!/usr/bin/python3
"""A loopback server that closes each connection after a number of requests,
the way reverse proxies do.

  closing_server.py --after N [--tls KEY_AND_CERT.pem] [--drop-first | --partial]

Prints "port P" first, then one line per request it receives: "answered
TARGET", or "dropped TARGET" for one it read and never answered.

Plain HTTP/1.1: answers N requests on a connection with keep-alive and
without announcing the close, then reads the next request and resets the
connection. Over TLS with ALPN h2: answers N streams, sends GOAWAY naming
the last of them once more streams wait, ignores the streams above it and
closes once the client has read its answers. --drop-first reads the first request of a
connection and resets it unanswered: a request the server may have
processed. --partial answers the request after the N-th with the start of
an answer before it resets: one the client has begun to read.
"""
import argparse
import socket
import ssl
import struct
import sys
import threading

import h2.config
import h2.connection
import h2.events

lock = threading.Lock()


def log(word, target):
    with lock:
        print(word, target, flush=True)


def reset(sock):
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    sock.close()


def http1(sock, after, drop_first, partial):
    data = b""
    answered = 0
    while True:
        while b"\r\n\r\n" not in data:
            chunk = sock.recv(65536)
            if not chunk:
                sock.close()
                return
            data += chunk
        head, data = data.split(b"\r\n\r\n", 1)
        lines = head.decode("latin-1").split("\r\n")
        target = lines[0].split(" ")[1]
        length = 0
        for line in lines[1:]:
            name, _, value = line.partition(":")
            if name.strip().lower() == "content-length":
                length = int(value)
        while len(data) < length:
            data += sock.recv(65536)
        data = data[length:]
        if answered >= after or drop_first:
            if partial:
                sock.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{")
            log("partial" if partial else "dropped", target)
            reset(sock)
            return
        log("answered", target)
        body = b'{"ok":true}'
        sock.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n%s"
                     % (len(body), body))
        answered += 1


def http2(sock, after):
    conn = h2.connection.H2Connection(config=h2.config.H2Configuration(client_side=False))
    conn.initiate_connection()
    sock.sendall(conn.data_to_send())
    sock.settimeout(0.2)
    targets = {}
    answered = 0
    last = 0
    going = False
    while True:
        try:
            chunk = sock.recv(65536)
        except socket.timeout:
            chunk = None  # nothing more is coming for now
        except OSError:
            chunk = b""
        if chunk == b"":
            sock.close()
            return
        if going:
            continue  # streams above the last one named in GOAWAY are never processed
        for event in conn.receive_data(chunk) if chunk else []:
            if isinstance(event, h2.events.RequestReceived):
                targets[event.stream_id] = dict(event.headers)[b":path"].decode()
            elif isinstance(event, h2.events.StreamEnded) and answered < after:
                target = targets.pop(event.stream_id)
                log("answered", target)
                body = b'{"ok":true}'
                conn.send_headers(event.stream_id, [(":status", "200"), ("content-type", "application/json"),
                                                    ("content-length", str(len(body)))])
                conn.send_data(event.stream_id, body, end_stream=True)
                answered += 1
                last = event.stream_id
        # GOAWAY once streams wait above the last one answered, so that some
        # surely go unprocessed.
        if answered >= after and (chunk is None or len(targets) >= 8):
            going = True
            conn.close_connection(last_stream_id=last)
        sock.sendall(conn.data_to_send())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--after", type=int, required=True)
    parser.add_argument("--tls")
    parser.add_argument("--drop-first", action="store_true")
    parser.add_argument("--partial", action="store_true")
    options = parser.parse_args()
    context = None
    if options.tls:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(options.tls)
        context.set_alpn_protocols(["h2", "http/1.1"])
    listener = socket.socket()
    listener.bind(("127.0.0.1", 0))
    listener.listen(128)
    print("port", listener.getsockname()[1], flush=True)

    def serve(sock):
        try:
            if context:
                sock = context.wrap_socket(sock, server_side=True)
                if sock.selected_alpn_protocol() == "h2":
                    return http2(sock, options.after)
            http1(sock, options.after, options.drop_first, options.partial)
        except (OSError, ssl.SSLError):
            pass

    while True:
        sock, _ = listener.accept()
        threading.Thread(target=serve, args=(sock,), daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
