// A loopback stand-in for an ntfy server, following ntfy's wire format:
// POST /<topic> publishes (answer: the stored message as JSON), GET
// /<topic>/json streams an "open" event, the cached messages after `since`
// and then live "message" and "keepalive" lines; `poll=1` answers with what
// is cached and closes. Errors are ntfy's JSON errors.
//
// Prints {"port":N} once listening on 127.0.0.1. Lines on stdin drive it:
// "down" closes the listener and every connection (the relay goes away,
// keeping its cache), "up" listens again on the same port;
// "refuse-subscribers" ends every stream and answers new ones 503 while
// still taking messages, "accept-subscribers" ends that; "garbage <topic>"
// sends what no ntfy server would; "stats" prints how many streams each
// topic had.
import http from 'node:http';
import readline from 'node:readline';
import { randomBytes } from 'node:crypto';
import { readFileSync } from 'node:fs';
import path from 'node:path';

const keepaliveSeconds = Number(process.env.KEEPALIVE_SECONDS ?? 45);
const topicRe = /^[-_A-Za-z0-9]{1,64}$/;
const cache = [];
const subscribers = new Set();
const sockets = new Set();
let port = 0;
let refuseSubscribers = false;
const subscriptions = {};  // streams opened, by topic

const now = () => Math.floor(Date.now() / 1000);
function newId() {
  const alphabet = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789';
  return Array.from(randomBytes(12), (b) => alphabet[b % alphabet.length]).join('');
}
function fail(res, http, code, error) {
  res.writeHead(http, { 'Content-Type': 'application/json' });
  res.end(JSON.stringify({ code, http, error }) + '\n');
}
function sinceFilter(since) {
  if (since === undefined || since === 'none') return () => false;
  if (since === 'all') return () => true;
  if (since === 'latest') {
    const last = cache[cache.length - 1];
    return (m) => m === last;
  }
  if (/^[A-Za-z0-9]{12}$/.test(since)) {
    const at = cache.findIndex((m) => m.id === since);
    return (m) => at >= 0 && cache.indexOf(m) > at;
  }
  if (/^\d+$/.test(since)) return (m) => m.time >= Number(since);
  const d = /^(\d+)(s|m|h|d)$/.exec(since);
  if (d) {
    const seconds = Number(d[1]) * { s: 1, m: 60, h: 3600, d: 86400 }[d[2]];
    return (m) => m.time >= now() - seconds;
  }
  return null;
}

// With PAGE_DIR set, GET /page/<file> serves the phone's page from that
// folder, so a browser in the tests loads it over loopback.
const pageDir = process.env.PAGE_DIR;
const types = { '.html': 'text/html; charset=utf-8', '.js': 'text/javascript; charset=utf-8' };

const server = http.createServer((req, res) => {
  const url = new URL(req.url, 'http://localhost');
  const parts = url.pathname.split('/').filter(Boolean);
  // As ntfy.sh does, so a page on another origin can talk to it.
  res.setHeader('Access-Control-Allow-Origin', '*');
  if (pageDir && req.method === 'GET' && parts.length === 2 && parts[0] === 'page' && /^[a-z]+\.(html|js)$/.test(parts[1])) {
    try {
      const body = readFileSync(path.join(pageDir, parts[1]));
      res.writeHead(200, { 'Content-Type': types[path.extname(parts[1])] });
      return res.end(body);
    } catch {
      return fail(res, 404, 40401, 'page not found');
    }
  }
  if (req.method === 'POST' || req.method === 'PUT') {
    if (parts.length !== 1 || !topicRe.test(parts[0])) return fail(res, 400, 40009, 'invalid topic');
    const chunks = [];
    req.on('data', (c) => chunks.push(c));
    req.on('end', () => {
      const body = Buffer.concat(chunks);
      const m = { id: newId(), time: now(), expires: now() + 43200, event: 'message', topic: parts[0] };
      if (body.length > 4096) {
        m.message = 'You received a file: attachment.txt';
        m.attachment = { name: 'attachment.txt', size: body.length };
      } else {
        m.message = body.toString('utf8');
      }
      if (req.headers.title) m.title = req.headers.title;
      if (req.headers.tags) m.tags = req.headers.tags.split(',').map((t) => t.trim());
      cache.push(m);
      for (const s of subscribers) if (s.topics.includes(m.topic)) s.res.write(JSON.stringify(m) + '\n');
      res.writeHead(200, { 'Content-Type': 'application/json' });
      res.end(JSON.stringify(m) + '\n');
    });
    return;
  }
  if (req.method === 'GET' && parts.length === 2 && parts[1] === 'json') {
    if (refuseSubscribers) return fail(res, 503, 50301, 'service unavailable');
    const topics = parts[0].split(',');
    if (!topics.every((t) => topicRe.test(t))) return fail(res, 400, 40009, 'invalid topic');
    const poll = url.searchParams.get('poll') === '1';
    const filter = sinceFilter(url.searchParams.get('since') ?? (poll ? 'all' : undefined));
    if (!filter) return fail(res, 400, 40008, 'invalid since parameter');
    res.writeHead(200, { 'Content-Type': 'application/x-ndjson; charset=utf-8' });
    const cached = cache.filter((m) => topics.includes(m.topic) && filter(m));
    if (poll) {
      for (const m of cached) res.write(JSON.stringify(m) + '\n');
      return res.end();
    }
    res.write(JSON.stringify({ id: newId(), time: now(), event: 'open', topic: parts[0] }) + '\n');
    for (const m of cached) res.write(JSON.stringify(m) + '\n');
    for (const t of topics) subscriptions[t] = (subscriptions[t] ?? 0) + 1;
    const sub = { topics, res };
    subscribers.add(sub);
    const timer = setInterval(() => {
      res.write(JSON.stringify({ id: newId(), time: now(), event: 'keepalive', topic: parts[0] }) + '\n');
    }, keepaliveSeconds * 1000);
    res.on('close', () => {
      clearInterval(timer);
      subscribers.delete(sub);
    });
    return;
  }
  fail(res, 404, 40401, 'page not found');
});
server.on('connection', (s) => {
  sockets.add(s);
  s.on('close', () => sockets.delete(s));
});

function listen() {
  server.listen(port, '127.0.0.1', () => {
    port = server.address().port;
    process.stdout.write(JSON.stringify({ port, up: true }) + '\n');
  });
}

readline.createInterface({ input: process.stdin }).on('line', (line) => {
  if (line === 'down') {
    server.close();
    for (const s of sockets) s.destroy();
    process.stdout.write(JSON.stringify({ down: true }) + '\n');
  } else if (line === 'up') {
    listen();
  } else if (line === 'refuse-subscribers') {
    // Publishing still works; reading is refused and open streams end.
    refuseSubscribers = true;
    for (const s of subscribers) s.res.destroy();
    process.stdout.write(JSON.stringify({ refusing: true }) + '\n');
  } else if (line.startsWith('garbage ')) {
    // A relay gone wrong: an endless line, text that isn't JSON, messages
    // of the wrong shape and absurd times, on every stream of the topic.
    const topicName = line.slice(8);
    for (const s of subscribers) {
      if (!s.topics.includes(topicName)) continue;
      s.res.write('x'.repeat(300 * 1024));
      s.res.write('y'.repeat(10) + '\n');
      s.res.write('not json\n');
      s.res.write(JSON.stringify({ id: newId(), time: now(), event: 'message', topic: topicName, message: 42 }) + '\n');
      s.res.write(JSON.stringify({ id: newId(), time: now(), event: 7, topic: topicName, message: 'x' }) + '\n');
      s.res.write(JSON.stringify({ id: newId(), time: now(), event: 'message', topic: ['x'], message: 'x' }) + '\n');
      // Times no relay could stamp, without an id to resume from instead.
      s.res.write(`{"time":1e300,"event":"message","topic":"${topicName}","message":"x"}\n`);
      s.res.write(JSON.stringify({ time: -5, event: 'message', topic: topicName, message: 'y' }) + '\n');
    }
    process.stdout.write(JSON.stringify({ garbage: true }) + '\n');
  } else if (line === 'stats') {
    process.stdout.write(JSON.stringify({ subscriptions }) + '\n');
  } else if (line === 'accept-subscribers') {
    refuseSubscribers = false;
    process.stdout.write(JSON.stringify({ refusing: false }) + '\n');
  }
}).on('close', () => process.exit(0));
listen();
