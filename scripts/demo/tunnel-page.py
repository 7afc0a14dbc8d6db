#!/usr/bin/env python3
"""The lab server's proof page: served on the server's tunnel address, and only to clients
whose request arrived through a tunnel (a source address in the tunnels' subnets). Anyone
else, including the same client outside the tunnel, gets 403.

    tunnel-page.py ADDRESS PORT
"""
import http.server
import ipaddress
import sys

TUNNEL_SUBNETS = [ipaddress.ip_network("10.8.0.0/24"), ipaddress.ip_network("10.9.0.0/24")]


class Page(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        client = ipaddress.ip_address(self.client_address[0])
        through = any(client in net for net in TUNNEL_SUBNETS)
        body = (f"Hello {client}: this page came through the Hollowmere tunnel.\n" if through
                else f"Refused: {client} is not on the tunnel.\n").encode()
        self.send_response(200 if through else 403)
        self.send_header("Content-Type", "text/plain; charset=utf-8")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, format, *args):
        sys.stderr.write("tunnel-page: " + (format % args) + "\n")


if __name__ == "__main__":
    http.server.ThreadingHTTPServer((sys.argv[1], int(sys.argv[2])), Page).serve_forever()
