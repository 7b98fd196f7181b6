// Drives `vigilo mcp` with the official MCP TypeScript SDK client, the way an
// agent does, against a running Vigilo app, and prints what happened as one
// JSON object for the end-to-end test to check.
//
//   node client.mjs /path/to/vigilo
//
// The servers get the transport's default environment (HOME, LOGNAME, PATH,
// SHELL, TERM, USER), as an agent's client gives them: no VIGILO_HOME and no
// XDG_RUNTIME_DIR, so they must find the app from HOME and the user alone.
// VIGILO_NO_AUTOSTART only keeps them from starting an app of their own.
//
// Two clients stand for two agent sessions. Each server treats its parent
// process as its session, so the two must have different parents: the first
// server is started by this node process, the second through a shell that
// stays alive around it (a plain `exec` would make node the parent again).

import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport, getDefaultEnvironment } from '@modelcontextprotocol/sdk/client/stdio.js';

const vigilo = process.argv[2];
if (!vigilo) {
  console.error('usage: node client.mjs <path to vigilo>');
  process.exit(2);
}

const env = { ...getDefaultEnvironment(), VIGILO_NO_AUTOSTART: '1' };

async function connect(name, command, args) {
  const transport = new StdioClientTransport({ command, args, env, stderr: 'pipe' });
  let stderr = '';
  transport.stderr?.on('data', (chunk) => { stderr += chunk; });
  // The stdio transport has no use for the agreed version; taking it here
  // shows what the client accepted.
  let protocolVersion = null;
  transport.setProtocolVersion = (v) => { protocolVersion = v; };
  const client = new Client({ name, version: '1.0.0' });
  await client.connect(transport);
  return { client, transport, protocolVersion: () => protocolVersion, stderr: () => stderr };
}

// A tool call as the agent sees it: the reply object and whether it was an error.
async function call(session, name, args = {}) {
  const result = await session.client.callTool({ name, arguments: args });
  const text = result.content?.[0]?.text ?? 'null';
  return { isError: result.isError === true, reply: JSON.parse(text) };
}

const summary = { nodePid: process.pid };
let a, b;
try {
  a = await connect('client-a', vigilo, ['mcp']);
  b = await connect('client-b', '/bin/sh', ['-c', '"$0" mcp; exit $?', vigilo]);

  summary.protocolVersion = a.protocolVersion();
  summary.serverInfo = a.client.getServerVersion();
  summary.capabilities = a.client.getServerCapabilities();
  summary.instructions = a.client.getInstructions();

  const { tools } = await a.client.listTools();
  summary.tools = tools.map((t) => t.name);
  summary.settingKeys = tools.find((t) => t.name === 'vigilo_set_setting')?.inputSchema?.properties?.key?.enum;

  const status = await call(a, 'vigilo_status');
  summary.status = { isError: status.isError, ok: status.reply.ok, holds: status.reply.holds?.length };

  // One hold each; the sessions differ, so the owners do.
  // A wrong-typed argument is an error naming it, never a hold without an end.
  const badMinutes = await call(a, 'vigilo_keep_awake', { reason: 'SDK client A', minutes: '2 hours' });
  summary.badMinutes = { isError: badMinutes.isError, error: badMinutes.reply.error };

  const holdA = await call(a, 'vigilo_keep_awake', { reason: 'SDK client A', minutes: 30 });
  const holdB = await call(b, 'vigilo_keep_awake', { reason: 'SDK client B', minutes: 30 });
  summary.holdA = { isError: holdA.isError, id: holdA.reply.hold?.id, owner: holdA.reply.hold?.owner };
  summary.holdB = { isError: holdB.isError, id: holdB.reply.hold?.id, owner: holdB.reply.hold?.owner };

  // B tries to end A's hold, by id and by ending "all of its own".
  const crossById = await call(b, 'vigilo_release', { hold_id: summary.holdA.id });
  summary.crossById = { isError: crossById.isError, error: crossById.reply.error };
  const releaseB = await call(b, 'vigilo_release');
  summary.releaseB = { isError: releaseB.isError, released: releaseB.reply.released };
  const after = await call(a, 'vigilo_status');
  summary.holdsAfterB = (after.reply.holds ?? []).map((h) => h.id);
  const releaseA = await call(a, 'vigilo_release', { hold_id: summary.holdA.id });
  summary.releaseA = { isError: releaseA.isError, released: releaseA.reply.released };

  const raise = await call(a, 'vigilo_set_setting', { key: 'battery_floor', value: '30' });
  const lower = await call(a, 'vigilo_set_setting', { key: 'battery_floor', value: '10' });
  summary.raiseFloor = { isError: raise.isError };
  summary.lowerFloor = { isError: lower.isError, error: lower.reply.error };
  const config = await call(a, 'vigilo_get_config');
  summary.batteryFloor = config.reply.config?.batteryFloor;

  try {
    await a.client.callTool({ name: 'vigilo_no_such_tool', arguments: {} });
    summary.unknownTool = { code: null };
  } catch (e) {
    summary.unknownTool = { code: e.code ?? null, message: e.message };
  }
  summary.ping = await a.client.ping();
} catch (e) {
  summary.failure = String(e?.stack ?? e);
} finally {
  for (const s of [a, b]) {
    if (!s) continue;
    await s.client.close();
  }
  summary.serverStderr = [a?.stderr() ?? '', b?.stderr() ?? ''];
}

console.log(JSON.stringify(summary));
process.exit(summary.failure ? 1 : 0);
