// The phone's side of Vigilo's channel, with nothing but WebCrypto and
// fetch: the key comes from the link's fragment (never sent anywhere), the
// two topics are derived from it, commands go out sealed on the command
// topic and replies come back sealed on the reply topic.
const enc = new TextEncoder();
const dec = new TextDecoder();

function fromB64url(text) {
  const b64 = text.replace(/-/g, '+').replace(/_/g, '/');
  const bin = atob(b64 + '='.repeat((4 - (b64.length % 4)) % 4));
  return Uint8Array.from(bin, (c) => c.charCodeAt(0));
}
function toB64url(bytes) {
  let bin = '';
  for (const b of bytes) bin += String.fromCharCode(b);
  return btoa(bin).replace(/\+/g, '-').replace(/\//g, '_').replace(/=+$/, '');
}
async function topic(keyBytes, label) {
  const data = new Uint8Array([...keyBytes, ...enc.encode(label)]);
  const digest = new Uint8Array(await crypto.subtle.digest('SHA-256', data));
  return 'vigilo-' + Array.from(digest, (b) => b.toString(16).padStart(2, '0')).join('').slice(0, 24);
}

const params = new URLSearchParams(location.hash.slice(1));
const $ = (id) => document.getElementById(id);
const keyText = params.get('k') ?? '';
const relay = (params.get('r') ?? 'https://ntfy.sh').replace(/\/+$/, '');
const relayHost = (() => {
  try {
    return new URL(relay).host;
  } catch {
    return relay;
  }
})();
let keyBytes = new Uint8Array();
try {
  keyBytes = fromB64url(keyText);
} catch {
  // Not base64: the same as no key.
}
const pending = new Map();
let key, cmdTopic, replyTopic;

function say(text, error = false) {
  $('message').textContent = text;
  $('message').className = error ? 'error' : '';
}

async function seal(text, topicName) {
  const iv = crypto.getRandomValues(new Uint8Array(12));
  const ct = new Uint8Array(await crypto.subtle.encrypt(
      { name: 'AES-GCM', iv, additionalData: enc.encode(topicName) }, key, enc.encode(text)));
  return toB64url(new Uint8Array([...iv, ...ct]));
}
async function open(message, topicName) {
  const box = fromB64url(message);
  const pt = await crypto.subtle.decrypt(
      { name: 'AES-GCM', iv: box.slice(0, 12), additionalData: enc.encode(topicName) }, key, box.slice(12));
  return dec.decode(pt);
}

const watts = (w) => (w < 10 ? w.toFixed(1) : Math.round(w)) + ' W';

// The Power button's figures: hours left with the lid shut, what the
// lid-closed savings save, and the apps drawing the most.
function showPower(reply) {
  let shown = false;
  if ('hours_left_closed' in reply) {
    const h = reply.hours_left_closed;
    $('hours').textContent = typeof h === 'number'
      ? `about ${h < 10 ? h.toFixed(1) : Math.round(h)} hours left on battery`
      : 'not known yet (it learns while the lid is shut)';
    shown = true;
  }
  if (typeof reply.saving_now_watts === 'number') {
    $('saving').textContent = reply.saving_now_watts > 0 ? watts(reply.saving_now_watts) : 'nothing (the lid is open)';
  }
  if (typeof reply.estimated_savings_this_week === 'number') {
    $('week').textContent = reply.estimated_savings_this_week.toFixed(1) + ' Wh saved';
  }
  if (Array.isArray(reply.apps)) {
    const list = $('apps');
    list.replaceChildren();
    for (const app of reply.apps) {
      const item = document.createElement('li');
      const name = document.createElement('span');
      name.textContent = String(app.name);
      const draw = document.createElement('span');
      draw.className = 'watts';
      draw.textContent = (app.estimated ? '~' : '') + watts(Number(app.watts) || 0);
      item.append(name, draw);
      list.append(item);
    }
    if (reply.apps.length === 0) {
      const item = document.createElement('li');
      item.textContent = 'No app draws much power right now.';
      list.append(item);
    }
    shown = true;
  }
  if (shown) $('power').hidden = false;
}

function show(reply) {
  showPower(reply);
  if (reply.status) $('status').textContent = reply.status;
  if (reply.mode) $('mode').textContent = { auto: 'When busy', always: 'Always', off: 'Off' }[reply.mode] ?? reply.mode;
  if (reply.battery && reply.battery.percent !== undefined) {
    $('battery').textContent = reply.battery.percent + '%' + (reply.battery.on_power ? ', on power' : '');
  }
  if (reply.lid_closed !== undefined) $('lid').textContent = reply.lid_closed ? 'closed' : 'open';
  if (typeof reply.system_watts === 'number') $('watts').textContent = reply.system_watts.toFixed(1) + ' W';
}

async function send(cmd, args = {}) {
  const n = crypto.randomUUID();
  const body = JSON.stringify({ n, cmd, args, t: Math.floor(Date.now() / 1000), dev: navigator.platform || 'Phone' });
  const answered = new Promise((resolve) => pending.set(n, resolve));
  let res;
  try {
    res = await fetch(`${relay}/${cmdTopic}`, { method: 'POST', body: await seal(body, cmdTopic) });
  } catch {
    pending.delete(n);
    throw new Error(`Can't reach the relay (${relayHost}). Check that this phone is online; ` +
                    'nothing was sent, and the laptop carries on as it was.');
  }
  if (!res.ok) {
    pending.delete(n);
    throw new Error(`The relay (${relayHost}) turned the command away (HTTP ${res.status}). ` +
                    'Nothing was sent; try again in a minute.');
  }
  const reply = await Promise.race([answered, new Promise((r) => setTimeout(() => r(null), 60000))]);
  pending.delete(n);
  if (!reply) throw new Error('No answer yet: the laptop may be asleep until its next check-in.');
  return reply;
}

async function listen() {
  let since = Math.floor(Date.now() / 1000) - 60;
  for (;;) {
    try {
      const res = await fetch(`${relay}/${replyTopic}/json?since=${since}`);
      const reader = res.body.getReader();
      let buffer = '';
      for (;;) {
        const { value, done } = await reader.read();
        if (done) break;
        buffer += dec.decode(value, { stream: true });
        let nl;
        while ((nl = buffer.indexOf('\n')) >= 0) {
          const line = buffer.slice(0, nl);
          buffer = buffer.slice(nl + 1);
          const m = JSON.parse(line);
          if (m.event !== 'message') continue;
          since = m.id;
          let reply;
          try {
            reply = JSON.parse(await open(m.message, replyTopic));
          } catch {
            continue;
          }
          const done = pending.get(reply.re);
          if (done) done(reply);
        }
      }
    } catch {
      // The relay went away: try again shortly.
    }
    await new Promise((r) => setTimeout(r, 3000));
  }
}

async function refresh() {
  const reply = await send('panel');
  if (reply.ok) show(reply);
  else say(reply.error, true);
}

async function main() {
  if (keyBytes.length !== 32) {
    $('status').textContent = 'This link has no pairing key. Run "vigilo pair" and scan its code.';
    return;
  }
  key = await crypto.subtle.importKey('raw', keyBytes, { name: 'AES-GCM' }, false, ['encrypt', 'decrypt']);
  cmdTopic = await topic(keyBytes, 'vigilo/cmd/v1');
  replyTopic = await topic(keyBytes, 'vigilo/reply/v1');
  listen();
  // Only now can a button send anything.
  for (const button of document.querySelectorAll('button[data-cmd]')) button.disabled = false;
  for (const button of document.querySelectorAll('button[data-cmd]')) {
    button.addEventListener('click', async () => {
      const args = {};
      if (button.dataset.mode) args.mode = button.dataset.mode;
      if (button.dataset.minutes) args.minutes = Number(button.dataset.minutes);
      say('Sending…');
      try {
        const reply = await send(button.dataset.cmd, args);
        if (!reply.ok) return say(reply.error, true);
        show(reply);
        say(reply.skipped ? `Skipped: ${reply.skipped}` : 'Done.');
        if (button.dataset.cmd !== 'panel') await refresh();
      } catch (e) {
        say(e.message, true);
      }
    });
  }
  try {
    await refresh();
  } catch (e) {
    $('status').textContent = e.message;
  }
  setInterval(() => refresh().catch(() => {}), 30000);
}
main();
