// The official conformance suite in server mode against kestrix mcp --http: the 2025-11-25
// scenarios and the 2026-07-28 requirements. Checks that cannot apply to a server with one
// tool and no prompts or resources are listed, with reasons, in
// conformance-expected-failures.yml; any other failure fails, and so does a listed check that
// starts passing.

import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFile, execFileSync } from 'node:child_process';
import { promisify } from 'node:util';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

import { KESTRIX, sampleRepoCopy, startHttpServer, temporaryDirectory } from './support.mjs';

const here = dirname(fileURLToPath(import.meta.url));
const suite = join(here, 'node_modules', '@modelcontextprotocol', 'conformance', 'dist', 'index.js');
const expectedFailures = join(here, 'conformance-expected-failures.yml');

const repo = sampleRepoCopy();
execFileSync(KESTRIX, ['index', '--repo', repo], { stdio: 'ignore' });

for (const selection of [[], ['--requirements', '2026-07-28']]) {
  test(`conformance ${selection.join(' ') || '(2025-11-25 scenarios)'}`, { timeout: 600000 }, async () => {
    const server = await startHttpServer(['--repo', repo]);
    try {
      const output = temporaryDirectory('conformance');
      const run = await promisify(execFile)(process.execPath, [suite, 'server', '--url', server.url, '--expected-failures',
        expectedFailures, '-o', output, ...selection], { maxBuffer: 64 * 1024 * 1024 }).catch((error) => error);
      const log = `${run.stdout}\n${run.stderr}`;
      const verdict = log.slice(log.lastIndexOf('=== SUMMARY ==='));
      assert.equal(run.code ?? 0, 0, verdict);
      assert.match(log, /Baseline check passed/);
    } finally {
      server.stop();
    }
  });
}
