// The official clients against kestrix mcp on stdio: the TypeScript SDK's legacy client, the
// v2 client pinned to 2026-07-28 and in auto mode, and the inspector's command line.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFile } from 'node:child_process';
import { promisify } from 'node:util';
import { join, dirname } from 'node:path';
import { fileURLToPath } from 'node:url';
import { execFileSync } from 'node:child_process';

import { Client as LegacyClient } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport as LegacyStdioTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { Client } from '@modelcontextprotocol/client';
import { StdioClientTransport } from '@modelcontextprotocol/client/stdio';

import { KESTRIX, sampleRepoCopy } from './support.mjs';

const repo = sampleRepoCopy();
// Indexed up front, so that every client sees the full pack.
execFileSync(KESTRIX, ['index', '--repo', repo], { stdio: 'ignore' });
const serverParams = { command: KESTRIX, args: ['mcp', '--repo', repo], stderr: 'ignore' };
const TASK = 'Fix total_price rounding of tax';

function checkToolList(tools) {
  assert.equal(tools.length, 1);
  const [tool] = tools;
  assert.equal(tool.name, 'context');
  assert.deepEqual(tool.inputSchema.required, ['task']);
  assert.deepEqual(tool.inputSchema.properties.action.enum, ['task']);
  assert.match(tool.inputSchema.properties.token_budget.description, /capped at 8000.*25000 tokens/);
  assert.equal(tool.outputSchema.type, 'object');
}

function checkPack(result) {
  assert.notEqual(result.isError, true, JSON.stringify(result));
  const pack = result.structuredContent;
  assert.deepEqual(JSON.parse(result.content[0].text), pack);
  assert.equal(pack.symbols[0].fqn, 'python.shop.cart.total_price');
  assert.equal(pack.symbols[0].file, 'python/shop/cart.py');
  assert.equal(pack.files[0], 'python/shop/cart.py');
  // The server refreshes the index as it starts, so a first call may see that refresh running.
  assert.equal(typeof pack.indexing_in_progress, 'boolean');
  assert.ok(Number.isInteger(pack.progress));
}

async function checkUnknownComponent(client) {
  const result = await client.callTool({ name: 'context', arguments: { task: TASK, component: 'nosuch' } });
  assert.equal(result.isError, true);
  assert.equal(result.content[0].text, 'Unknown component: nosuch');
}

test('the SDK client (2025-11-25) lists and calls the tool', async () => {
  const client = new LegacyClient({ name: 'kestrix-e2e', version: '1.0.0' });
  await client.connect(new LegacyStdioTransport(serverParams));
  try {
    assert.equal(client.getServerVersion().name, 'kestrix');
    checkToolList((await client.listTools()).tools);
    checkPack(await client.callTool({ name: 'context', arguments: { task: TASK } }));
    await checkUnknownComponent(client);
    const empty = await client.callTool({ name: 'context', arguments: { task: '  ' } });
    assert.equal(empty.isError, true);
    assert.match(empty.content[0].text, /task is empty/);
  } finally {
    await client.close();
  }
});

for (const mode of [{ pin: '2026-07-28' }, 'auto']) {
  test(`the v2 client (${JSON.stringify(mode)}) speaks 2026-07-28`, async () => {
    const client = new Client({ name: 'kestrix-e2e', version: '2.0.0' }, { versionNegotiation: { mode } });
    await client.connect(new StdioClientTransport(serverParams));
    try {
      assert.equal(client.getNegotiatedProtocolVersion(), '2026-07-28');
      assert.ok(client.getDiscoverResult().supportedVersions.includes('2025-11-25'));
      checkToolList((await client.listTools()).tools);
      checkPack(await client.callTool({ name: 'context', arguments: { task: TASK, include_snippets: true } }));
      await checkUnknownComponent(client);
    } finally {
      await client.close();
    }
  });
}

const inspector = join(dirname(fileURLToPath(import.meta.url)), 'node_modules', '.bin', 'mcp-inspector');

async function runInspector(args) {
  try {
    const { stdout, stderr } = await promisify(execFile)(process.execPath, [inspector, '--cli', ...args, KESTRIX, 'mcp', '--repo', repo]);
    return { code: 0, stdout, stderr };
  } catch (error) {
    return { code: error.code, stdout: error.stdout, stderr: error.stderr };
  }
}

test('the inspector CLI lists the tool with --strict and calls it', async () => {
  const list = await runInspector(['--strict', '--format', 'json', '--method', 'tools/list']);
  assert.equal(list.code, 0, list.stderr);
  assert.doesNotMatch(list.stderr, /Warning|Error/, 'the tool schema is portable');
  checkToolList(JSON.parse(list.stdout).result.tools);

  const call = await runInspector(['--format', 'json', '--method', 'tools/call', '--tool-name', 'context', '--tool-args-json', JSON.stringify({ task: TASK })]);
  assert.equal(call.code, 0, call.stderr);
  checkPack(JSON.parse(call.stdout).result);

  const unknown = await runInspector(['--method', 'tools/call', '--tool-name', 'context', '--tool-args-json', JSON.stringify({ task: TASK, component: 'nosuch' })]);
  assert.equal(unknown.code, 5, `the inspector's tool-error exit code; stderr: ${unknown.stderr}`);
});
