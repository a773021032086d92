// Indexing never blocks a call: a server started on a repository without an index answers at
// once from what the index holds (saying indexing is in progress), fills the pack once the
// index is built, and follows edits to the working tree.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { mkdirSync, writeFileSync, appendFileSync } from 'node:fs';
import { join } from 'node:path';
import { execFileSync } from 'node:child_process';

import { KESTRIX, StdioServer, contextCall, sampleRepoCopy, temporaryDirectory } from './support.mjs';

// A repository large enough that building its index takes seconds.
function generatedRepo(files) {
  const repo = join(temporaryDirectory('large'), 'repo');
  for (let f = 0; f < files; ++f) {
    const dir = join(repo, 'pkg', `module_${Math.floor(f / 100)}`);
    mkdirSync(dir, { recursive: true });
    let text = `"""Generated module ${f}."""\nimport os\n\n`;
    for (let n = 0; n < 40; ++n) {
      text += `def handler_${f}_${n}(value, other=None):\n    """Handle value ${n} of module ${f}."""\n    return helper_${f}_${(n + 1) % 40}(value) if other else os.path.join(str(value), "${n}")\n\n`;
      text += `def helper_${f}_${n}(value):\n    return value\n\n`;
    }
    writeFileSync(join(dir, `file_${f}.py`), text);
  }
  writeFileSync(join(repo, 'pkg', 'ledger.py'), 'def reconcile_ledger(entries):\n    """Match entries."""\n    return entries\n');
  return repo;
}

async function pack(server, id, task) {
  const response = await server.request(id, 'tools/call', contextCall({ task }));
  assert.equal(response.result.isError, false, JSON.stringify(response));
  return response.result.structuredContent;
}

test('the first call answers at once while the index is built, a later one in full', async () => {
  const repo = generatedRepo(1000);
  const server = new StdioServer(['--repo', repo]);
  try {
    const started = Date.now();
    const first = await pack(server, 1, 'Fix reconcile_ledger');
    const elapsed = Date.now() - started;
    assert.ok(elapsed < 1000, `first answer after ${elapsed} ms`);
    assert.equal(first.indexing_in_progress, true);
    assert.ok(first.progress >= 0 && first.progress < 100, `progress ${first.progress}`);

    let later = first;
    for (let id = 2; later.indexing_in_progress || later.symbols.length === 0; ++id) {
      assert.ok(Date.now() - started < 300000, 'the index was not built within five minutes');
      await new Promise((resolve) => setTimeout(resolve, 200));
      later = await pack(server, id, 'Fix reconcile_ledger');
    }
    assert.equal(later.symbols[0].fqn, 'pkg.ledger.reconcile_ledger');
    assert.equal(later.progress, 100);
  } finally {
    await server.close();
  }
});

test('an edit made while the server runs is in the next pack within two seconds', async () => {
  const repo = sampleRepoCopy();
  execFileSync(KESTRIX, ['index', '--repo', repo], { stdio: 'ignore' });
  const server = new StdioServer(['--repo', repo]);
  try {
    // Wait for the refresh that the server runs as it starts.
    for (let id = 1; (await pack(server, id, 'total_price')).indexing_in_progress; ++id) {
      await new Promise((resolve) => setTimeout(resolve, 50));
    }
    const task = 'Fix apply_store_credit';
    const packed = (result) => result.symbols.some((row) => row.fqn === 'python.shop.cart.apply_store_credit');
    assert.equal(packed(await pack(server, 100, task)), false);

    appendFileSync(join(repo, 'python', 'shop', 'cart.py'), '\n\ndef apply_store_credit(total, credit):\n    return total - credit\n');
    const edited = Date.now();
    let found = false;
    for (let id = 101; !found && Date.now() - edited < 2000; ++id) {
      found = packed(await pack(server, id, task));
      if (!found) await new Promise((resolve) => setTimeout(resolve, 50));
    }
    assert.ok(found, `the new function was not packed within 2 s; stderr: ${server.stderr}`);
  } finally {
    await server.close();
  }
});
