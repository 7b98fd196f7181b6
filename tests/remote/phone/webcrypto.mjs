// The phone's side of the channel, written from the wire format alone with
// Node's WebCrypto, so the tests check Vigilo against an independent
// implementation.
import { webcrypto as crypto, createHash } from 'node:crypto';

export function b64urlToBytes(text) {
  const b64 = text.replace(/-/g, '+').replace(/_/g, '/');
  return new Uint8Array(Buffer.from(b64, 'base64'));
}

export function bytesToB64url(bytes) {
  return Buffer.from(bytes).toString('base64').replace(/\+/g, '-').replace(/\//g, '_').replace(/=+$/, '');
}

export function topic(keyBytes, label) {
  const h = createHash('sha256');
  h.update(keyBytes);
  h.update(Buffer.from(label, 'utf8'));
  return 'vigilo-' + h.digest('hex').slice(0, 24);
}

async function aesKey(keyBytes) {
  return crypto.subtle.importKey('raw', keyBytes, { name: 'AES-GCM' }, false, ['encrypt', 'decrypt']);
}

export async function seal(plaintext, topicName, keyBytes, nonce) {
  const iv = nonce ?? crypto.getRandomValues(new Uint8Array(12));
  const ct = new Uint8Array(await crypto.subtle.encrypt(
      { name: 'AES-GCM', iv, additionalData: Buffer.from(topicName, 'utf8') }, await aesKey(keyBytes),
      Buffer.from(plaintext, 'utf8')));
  const box = new Uint8Array(iv.length + ct.length);
  box.set(iv, 0);
  box.set(ct, iv.length);
  return bytesToB64url(box);
}

export async function open(message, topicName, keyBytes) {
  const box = b64urlToBytes(message);
  const pt = await crypto.subtle.decrypt(
      { name: 'AES-GCM', iv: box.slice(0, 12), additionalData: Buffer.from(topicName, 'utf8') },
      await aesKey(keyBytes), box.slice(12));
  return Buffer.from(pt).toString('utf8');
}
