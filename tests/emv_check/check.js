// Parses BER-TLV answers (each argument one answer in hex) with the independent `ber-tlv` package and prints
// one JSON array per answer: every data object in depth-first order as [depth, tag, value], the tag in upper
// case hexadecimal, the value in upper case hexadecimal or null for a constructed object. An answer the
// package refuses prints {"error": message}.
'use strict';
const TlvFactory = require('ber-tlv').TlvFactory;

function walk(items, depth, out) {
  for (const t of items) {
    const tag = (typeof t.tag === 'string' ? t.tag : Buffer.from(t.tag).toString('hex')).toUpperCase();
    if (t.items && t.items.length !== undefined && t.type === 1) {
      out.push([depth, tag, null]);
      walk(t.items, depth + 1, out);
    } else {
      out.push([depth, tag, Buffer.from(t.value || []).toString('hex').toUpperCase()]);
    }
  }
}

for (const hex of process.argv.slice(2)) {
  try {
    const out = [];
    walk(TlvFactory.parse(Buffer.from(hex, 'hex')), 0, out);
    console.log(JSON.stringify(out));
  } catch (e) {
    console.log(JSON.stringify({ error: String(e.message || e) }));
  }
}
