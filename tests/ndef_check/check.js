// Reads an NDEF message (raw bytes, the file named first) with the independent `ndef` package and prints its
// records as JSON lines: tnf, type, id, payload in hex, and the decoded URI or text.
'use strict';
const fs = require('fs');
const ndef = require('ndef');

const bytes = Array.from(fs.readFileSync(process.argv[2]));
const records = ndef.decodeMessage(bytes);
const out = records.map((r) => {
  const o = {
    tnf: r.tnf,
    type: r.type,
    id: Buffer.from(r.id || []).toString('latin1'),
    payload: Buffer.from(r.payload).toString('hex'),
  };
  if (r.tnf === 1 && r.type === 'U') o.uri = ndef.uri.decodePayload(r.payload);
  if (r.tnf === 1 && r.type === 'T') o.text = ndef.text.decodePayload(r.payload);
  return o;
});
console.log(JSON.stringify(out));
