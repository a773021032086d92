// Shared by the end-to-end tests: where the tool and the sample repository are, temporary
// copies of repositories, and a kestrix mcp process driven over raw stdio or HTTP.

import { spawn } from 'node:child_process';
import { cpSync, mkdtempSync, rmSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { once } from 'node:events';

export const KESTRIX = process.env.KESTRIX_BINARY;
export const SAMPLE_REPO = process.env.KESTRIX_SAMPLE_REPO;
if (!KESTRIX || !SAMPLE_REPO) throw new Error('KESTRIX_BINARY and KESTRIX_SAMPLE_REPO must be set (ctest sets them)');

export const MODERN = '2026-07-28';
export const MODERN_META = {
  'io.modelcontextprotocol/protocolVersion': MODERN,
  'io.modelcontextprotocol/clientCapabilities': {},
};

// A fresh directory, removed when the test process ends.
export function temporaryDirectory(prefix) {
  const dir = mkdtempSync(join(tmpdir(), `kestrix-${prefix}-`));
  process.on('exit', () => rmSync(dir, { recursive: true, force: true }));
  return dir;
}

// A copy of tests/sample_repo without an index.
export function sampleRepoCopy() {
  const repo = join(temporaryDirectory('repo'), 'repo');
  cpSync(SAMPLE_REPO, repo, { recursive: true });
  rmSync(join(repo, '.kestrix'), { recursive: true, force: true });
  return repo;
}

// kestrix mcp on stdio, spoken to line by line: send() writes one message, next() waits for
// the next line the server writes.
export class StdioServer {
  constructor(args, env = process.env) {
    this.child = spawn(KESTRIX, ['mcp', ...args], { stdio: ['pipe', 'pipe', 'pipe'], env });
    this.lines = [];
    this.waiters = [];
    this.stderr = '';
    let buffer = '';
    this.child.stdout.setEncoding('utf8');
    this.child.stdout.on('data', (chunk) => {
      buffer += chunk;
      let newline;
      while ((newline = buffer.indexOf('\n')) >= 0) {
        const line = buffer.slice(0, newline);
        buffer = buffer.slice(newline + 1);
        const waiter = this.waiters.shift();
        if (waiter) waiter(line);
        else this.lines.push(line);
      }
    });
    this.child.stderr.setEncoding('utf8');
    this.child.stderr.on('data', (chunk) => { this.stderr += chunk; });
    this.child.stdin.on('error', () => {});
  }

  send(message) {
    const text = typeof message === 'string' ? message : JSON.stringify(message);
    return new Promise((resolve) => { if (this.child.stdin.write(text + '\n')) resolve(); else this.child.stdin.once('drain', resolve); });
  }

  next(timeoutMs = 30000) {
    if (this.lines.length > 0) return Promise.resolve(JSON.parse(this.lines.shift()));
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error(`no answer within ${timeoutMs} ms; stderr: ${this.stderr}`)), timeoutMs);
      this.waiters.push((line) => { clearTimeout(timer); resolve(JSON.parse(line)); });
    });
  }

  // Sends a request and returns its response, skipping notifications.
  async request(id, method, params) {
    await this.send({ jsonrpc: '2.0', id, method, params });
    for (;;) {
      const message = await this.next();
      if (message.id === id) return message;
    }
  }

  async close() {
    this.child.stdin.end();
    const [code] = await once(this.child, 'exit');
    return code;
  }
}

// The `context` tool's call as a 2026-07-28 request.
export function contextCall(args, meta = {}) {
  return { name: 'context', arguments: args, _meta: { ...MODERN_META, ...meta } };
}

// kestrix mcp --http on a free loopback port; resolves once it listens.
export async function startHttpServer(args) {
  const child = spawn(KESTRIX, ['mcp', '--http', '127.0.0.1:0', ...args], { stdio: ['ignore', 'ignore', 'pipe'] });
  child.stderr.setEncoding('utf8');
  let stderr = '';
  const url = await new Promise((resolve, reject) => {
    child.stderr.on('data', (chunk) => {
      stderr += chunk;
      const match = stderr.match(/listening on (http:\/\/\S+)/);
      if (match) resolve(match[1]);
    });
    child.on('exit', (code) => reject(new Error(`kestrix mcp --http exited with ${code}: ${stderr}`)));
  });
  return { url, child, stop: () => { child.kill('SIGTERM'); } };
}
