// Reads a vCard (raw bytes, the file named first) with the independent `vcf` package and prints its
// properties as one JSON object: the number of cards, then name, organisation, address parts, phone, e-mail
// and web address of the first. The line ends are made CR LF first, as the vCard format asks: the contact
// records end their later lines with LF alone.
'use strict';
const fs = require('fs');
const vCard = require('vcf');

const raw = fs.readFileSync(process.argv[2], 'latin1');
const cards = vCard.parse(raw.replace(/\r?\n/g, '\r\n'));
const out = { cards: cards.length };
if (cards.length) {
  for (const [name, , , value] of cards[0].toJCard()[1]) {
    if (name !== 'version') out[name] = value;
  }
}
console.log(JSON.stringify(out));
