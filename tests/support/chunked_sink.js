// Node's strict HTTP server for one request: prints its port, answers with the decoded body's length and
// SHA-256 ("<length> <hex>"), or node's own 400 for bad framing, then exits.
const crypto = require('crypto');
const server = require('http').createServer((req, res) => {
  const hash = crypto.createHash('sha256');
  let length = 0;
  req.on('data', (c) => { length += c.length; hash.update(c); });
  req.on('end', () => res.end(`${length} ${hash.digest('hex')}`, () => process.exit(0)));
});
server.on('clientError', (e, socket) => { socket.end('HTTP/1.1 400 Bad Request\r\n\r\n'); process.exit(0); });
server.listen(0, '127.0.0.1', () => console.log(server.address().port));
