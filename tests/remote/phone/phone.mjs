// Plays a paired phone: node phone.mjs <pairing link> [relay]. Reads one
// JSON request a line on stdin and prints the reply the laptop sent back:
//   {"cmd":"mode","args":{...}}            a fresh command
//   {"n":"id","t":-100,"cmd":"panel"}      with a given id and clock offset
//   {"cmd":"panel","onTopic":"reply"}      sealed for the wrong topic
//   {"cmd":"panel","dev":"name"}           with another device name
//   {"raw":"text"}                          publish text as is
//   {"cmd":"panel","noWait":true} then {"await":"id"}
// A request without an answer within 10 s (or its "timeoutMs") prints
// {"timeout":true}.
import http from 'node:http';
import readline from 'node:readline';
import { randomUUID } from 'node:crypto';
import { b64urlToBytes, topic, seal, open } from './webcrypto.mjs';

const link = new URL(process.argv[2]);
const fragment = new URLSearchParams(link.hash.slice(1));
const key = b64urlToBytes(fragment.get('k'));
const relay = (process.argv[3] ?? fragment.get('r') ?? 'https://ntfy.sh').replace(/\/+$/, '');
const cmdTopic = topic(key, 'vigilo/cmd/v1');
const replyTopic = topic(key, 'vigilo/reply/v1');
const replies = new Map();
const waiting = new Map();

function subscribe(since) {
  let again = false;
  // Once per connection, however it ends (the relay closing it, or going away).
  const retry = () => {
    if (again) return;
    again = true;
    setTimeout(() => subscribe('all'), 200);
  };
  const req = http.get(`${relay}/${replyTopic}/json?since=${since}`, (res) => {
    let buffer = '';
    res.on('data', async (chunk) => {
      buffer += chunk;
      let nl;
      while ((nl = buffer.indexOf('\n')) >= 0) {
        const line = buffer.slice(0, nl);
        buffer = buffer.slice(nl + 1);
        const m = JSON.parse(line);
        if (m.event !== 'message') continue;
        let reply;
        try {
          reply = JSON.parse(await open(m.message, replyTopic, key));
        } catch {
          continue;
        }
        const done = waiting.get(reply.re);
        if (done) {
          waiting.delete(reply.re);
          done(reply);
        } else {
          replies.set(reply.re, reply);
        }
      }
    });
    res.on('close', retry);
  });
  req.on('error', retry);
}

function publish(body) {
  return new Promise((resolve) => {
    const req = http.request(`${relay}/${cmdTopic}`, { method: 'POST' }, (res) => {
      res.resume();
      res.on('end', () => resolve(res.statusCode));
    });
    req.on('error', () => resolve(0));
    req.end(body);
  });
}

function answerTo(n, limit = 10000) {
  return new Promise((resolve) => {
    if (replies.has(n)) return resolve(replies.get(n));
    const timer = setTimeout(() => {
      waiting.delete(n);
      resolve({ timeout: true });
    }, limit);
    waiting.set(n, (r) => {
      clearTimeout(timer);
      resolve(r);
    });
  });
}

subscribe('all');
process.stdout.write(JSON.stringify({ ready: true, cmdTopic, replyTopic }) + '\n');
const lines = readline.createInterface({ input: process.stdin });
for await (const line of lines) {
  const req = JSON.parse(line);
  if (req.await !== undefined) {
    process.stdout.write(JSON.stringify(await answerTo(req.await)) + '\n');
    continue;
  }
  if (req.raw !== undefined) {
    process.stdout.write(JSON.stringify({ published: await publish(req.raw) }) + '\n');
    continue;
  }
  const n = req.n ?? randomUUID();
  const command = { n, cmd: req.cmd, args: req.args ?? {}, t: Math.floor(Date.now() / 1000) + (req.t ?? 0),
                    dev: req.dev ?? 'Test phone' };
  const onTopic = req.onTopic === 'reply' ? replyTopic : cmdTopic;
  const status = await publish(await seal(JSON.stringify(command), onTopic, key));
  if (req.noWait) {
    process.stdout.write(JSON.stringify({ published: status, n }) + '\n');
    continue;
  }
  process.stdout.write(JSON.stringify(await answerTo(n, req.timeoutMs)) + '\n');
}
process.exit(0);
