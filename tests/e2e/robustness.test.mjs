// 10,000 malformed and random messages, then a valid call: the server answers it, has answered
// every request on the way with a response of the right shape, and its memory stays flat.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { readFileSync } from 'node:fs';
import { execFileSync } from 'node:child_process';

import { KESTRIX, StdioServer, contextCall, sampleRepoCopy } from './support.mjs';

// Deterministic, so that a failure can be replayed.
function random(seed) {
  let state = seed >>> 0;
  return () => {
    state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
    return state / 2 ** 32;
  };
}

const next = random(20261123);
const pick = (items) => items[Math.floor(next() * items.length)];
const junkValues = [null, true, 0, -1, 1.5, 1e308, 2 ** 63, 'x', '', [], {}, [1, 2], { a: { b: [null] } }, 'é\u0000☃'];
const methods = ['tools/call', 'tools/list', 'initialize', 'ping', 'server/discover', 'nonsense', 'notifications/cancelled',
  'notifications/initialized', 'resources/list', '', 'tools/call/extra'];

// One malformed or random message, as the text written on the line. `huge` strings are 5 MB.
function randomMessage(i, huge) {
  switch (i % 12) {
    case 0: return '{"jsonrpc": "2.0", "id": ' + i + ', "method": ';        // cut short
    case 1: return 'not json at all ' + i;
    case 2: return JSON.stringify(pick(junkValues));                        // not an object
    case 3: return JSON.stringify({ jsonrpc: '1.0', id: i, method: 'ping' });
    case 4: return JSON.stringify({ jsonrpc: '2.0', id: pick(junkValues), method: pick(methods) });
    case 5: return JSON.stringify({ jsonrpc: '2.0', id: i, method: pick(methods), params: pick(junkValues) });
    case 6: return JSON.stringify({ jsonrpc: '2.0', id: '9'.repeat(400), method: 'tools/call', params: { name: pick(['context', 'nope', 7]) } });
    case 7: return JSON.stringify({ jsonrpc: '2.0', id: i, method: 'tools/call', params: { name: 'context', arguments: {
      task: pick(junkValues), token_budget: pick(junkValues), component: pick(junkValues), prefer_kinds: pick(junkValues),
      deep_fqns: pick(junkValues), include_snippets: pick(junkValues), action: pick(['task', 'other', 3]) } } });
    case 8: return JSON.stringify({ jsonrpc: '2.0', id: i, method: pick(methods), params: { _meta: {
      'io.modelcontextprotocol/protocolVersion': pick(['2026-07-28', '1999-01-01', 5, null]),
      'io.modelcontextprotocol/clientCapabilities': pick(junkValues) } } });
    // Notifications; a cancellation names no request sent, so that every request is answered.
    case 9: return JSON.stringify({ jsonrpc: '2.0', method: pick(methods), params: { requestId: pick([null, 1.5, {}, 'unsent']) } });
    case 10: return huge ? JSON.stringify({ jsonrpc: '2.0', id: i, method: 'tools/call', params: contextCall({ task: 'x'.repeat(5 * 1024 * 1024) }) })
                         : JSON.stringify({ jsonrpc: '2.0', id: i, result: {} });
    default: return Array.from({ length: 1 + Math.floor(next() * 40) }, () => String.fromCharCode(32 + Math.floor(next() * 95))).join('');
  }
}

// Whether the line sent is a request that the server must answer: valid JSON with a method
// and an id, or anything the server cannot read as a message.
function expectsAnswer(text) {
  let message;
  try { message = JSON.parse(text); } catch { return true; }
  if (message === null || typeof message !== 'object' || Array.isArray(message)) return true;
  if (!('method' in message)) return !('id' in message && ('result' in message || 'error' in message));
  return 'id' in message;
}

function residentKilobytes(pid) {
  return Number(readFileSync(`/proc/${pid}/status`, 'utf8').match(/VmRSS:\s+(\d+)/)[1]);
}

test('10,000 malformed and random messages, then a valid call that is answered', async () => {
  const repo = sampleRepoCopy();
  execFileSync(KESTRIX, ['index', '--repo', repo], { stdio: 'ignore' });
  // Under AddressSanitizer freed memory is held back for a while (256 MB by default) to catch
  // late uses; a smaller hold keeps the check meaningful there.
  const sanitized = process.env.ASAN_OPTIONS !== undefined;
  const env = sanitized ? { ...process.env, ASAN_OPTIONS: `${process.env.ASAN_OPTIONS}:quarantine_size_mb=16` } : process.env;
  const server = new StdioServer(['--repo', repo, '--no-follow'], env);
  try {
    let expected = 0;
    let answered = 0;
    let rssAfterWarmUp = 0;
    const reading = (async () => {
      for (;;) {
        const message = await server.next(120000);
        if (message.method) continue;  // progress notifications
        assert.equal(message.jsonrpc, '2.0');
        assert.ok(('result' in message) !== ('error' in message), JSON.stringify(message).slice(0, 300));
        if (message.error) assert.ok(Number.isInteger(message.error.code) && typeof message.error.message === 'string');
        ++answered;
        if (message.id === 'final') return message;
      }
    })();
    for (let i = 0; i < 10000; ++i) {
      const text = randomMessage(i, i % 2000 === 10);
      if (expectsAnswer(text)) ++expected;
      await server.send(text);
      if (i === 2000) rssAfterWarmUp = residentKilobytes(server.child.pid);
    }
    await server.send({ jsonrpc: '2.0', id: 'final', method: 'tools/call', params: contextCall({ task: 'Fix total_price rounding' }) });
    const final = await reading;
    const rssAtEnd = residentKilobytes(server.child.pid);
    assert.equal(final.result.structuredContent.symbols[0].fqn, 'python.shop.cart.total_price');
    assert.equal(answered, expected + 1, 'one answer per request');
    assert.ok(rssAtEnd - rssAfterWarmUp < (sanitized ? 64 : 32) * 1024, `resident memory grew from ${rssAfterWarmUp} kB to ${rssAtEnd} kB`);
  } finally {
    assert.equal(await server.close(), 0);
  }
});
