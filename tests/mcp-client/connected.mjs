// Starts the MCP server an agent's configuration file names, the way the
// agent does (command and args from the file, the SDK's default environment
// plus the entry's own env), and prints what it answered as one JSON object.
// VIGILO_NO_AUTOSTART=1 is added only so that a server that can't find the
// test's app never starts one of its own.
//
//   node connected.mjs /path/to/.claude.json

import { readFileSync } from 'node:fs';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport, getDefaultEnvironment } from '@modelcontextprotocol/sdk/client/stdio.js';

const summary = {};
let client;
try {
  const config = JSON.parse(readFileSync(process.argv[2], 'utf8'));
  const entry = config.mcpServers.vigilo;
  summary.entry = entry;
  const transport = new StdioClientTransport({
    command: entry.command,
    args: entry.args ?? [],
    env: { ...getDefaultEnvironment(), ...(entry.env ?? {}), VIGILO_NO_AUTOSTART: '1' },
    stderr: 'pipe',
  });
  client = new Client({ name: 'connected-agent', version: '1.0.0' });
  await client.connect(transport);
  const { tools } = await client.listTools();
  summary.tools = tools.length;
  const result = await client.callTool({ name: 'vigilo_status', arguments: {} });
  summary.statusIsError = result.isError === true;
  summary.status = JSON.parse(result.content?.[0]?.text ?? 'null');
} catch (e) {
  summary.failure = String(e?.stack ?? e);
} finally {
  if (client) await client.close();
}
console.log(JSON.stringify(summary));
process.exit(summary.failure ? 1 : 0);
