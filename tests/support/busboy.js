// Prints the parts busboy finds in a multipart body, fed in small pieces: one JSON line per part,
// [name, filename, data in hex]; exits 1 on any parser error or a body cut short.
const fs = require('fs');
const busboy = require('busboy');
const [contentType, file] = process.argv.slice(2);
const parts = [];
// latin1 keeps a field's bytes one to one; no limits, so that big parts come back whole.
const bb = busboy({headers: {'content-type': contentType}, defCharset: 'latin1', limits: {fieldSize: Infinity}});
bb.on('field', (name, value) => parts.push([name, '', Buffer.from(value, 'latin1').toString('hex')]));
bb.on('file', (name, stream, info) => {
  const chunks = [];
  const part = [name, info.filename || '', ''];
  parts.push(part);
  stream.on('data', (c) => chunks.push(c)).on('end', () => { part[2] = Buffer.concat(chunks).toString('hex'); });
});
bb.on('error', (e) => { console.error(e.message); process.exit(1); });
bb.on('close', () => parts.forEach((p) => console.log(JSON.stringify(p))));
const body = fs.readFileSync(file);
for (let at = 0, n = 1; at < body.length; at += n, n = n % 997 + 1) bb.write(body.subarray(at, at + n));
bb.end();
