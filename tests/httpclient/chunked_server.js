// SPDX-License-Identifier: Apache-2.0
// Serves one file over HTTP/1.1 with chunked transfer coding (no Content-Length), written in
// several pieces, on 127.0.0.1 at the port given. Usage: node chunked_server.js <port> <file>
'use strict';
const http = require('http');
const fs = require('fs');

const port = Number(process.argv[2]);
const file = process.argv[3];

http.createServer((request, response) => {
  const bytes = fs.readFileSync(file);
  response.writeHead(200, {'Content-Type': 'text/xml; charset="utf-8"'});
  const piece = 4000;
  for (let at = 0; at < bytes.length; at += piece) {
    response.write(bytes.subarray(at, at + piece));
  }
  response.end();
}).listen(port, '127.0.0.1');
