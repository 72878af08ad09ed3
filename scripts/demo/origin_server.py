#!/usr/bin/env python3
"""A tiny origin web server for the demonstration: plain HTTP or HTTPS on one address."""
import argparse
import http.server
import ssl


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):  # noqa: N802 (name fixed by the base class)
        body = (f"<html><body><h1>{self.server.title}</h1>"
                f"<p>You asked for {self.path} on {self.headers.get('Host')}.</p>"
                "</body></html>\n").encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/html")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, fmt, *args):
        print(f"origin {self.server.title}: from {self.client_address[0]}: " + fmt % args,
              flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--bind", required=True)
    parser.add_argument("--port", type=int, required=True)
    parser.add_argument("--title", required=True)
    parser.add_argument("--cert")
    parser.add_argument("--key")
    args = parser.parse_args()
    server = http.server.ThreadingHTTPServer((args.bind, args.port), Handler)
    server.title = args.title
    if args.cert:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(args.cert, args.key)
        server.socket = context.wrap_socket(server.socket, server_side=True)
    print(f"origin {args.title}: ready on {args.bind}:{args.port}", flush=True)
    server.serve_forever()


if __name__ == "__main__":
    main()
