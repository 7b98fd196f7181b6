// Known answers: node kat.mjs <key base64url> <nonce hex> <plaintext> [box to open]
// prints {"cmd":topic,"reply":topic,"sealed":box on the command topic,"opened":text}.
import { b64urlToBytes, topic, seal, open } from './webcrypto.mjs';

const [key, nonceHex, plaintext, toOpen] = process.argv.slice(2);
const keyBytes = b64urlToBytes(key);
const cmd = topic(keyBytes, 'vigilo/cmd/v1');
const reply = topic(keyBytes, 'vigilo/reply/v1');
const out = { cmd, reply, sealed: await seal(plaintext, cmd, keyBytes, Buffer.from(nonceHex, 'hex')) };
if (toOpen) out.opened = await open(toOpen, reply, keyBytes);
process.stdout.write(JSON.stringify(out) + '\n');
