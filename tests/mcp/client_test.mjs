// End to end with the official MCP TypeScript SDK client: it starts
// `tarv mcp` over stdio, lists the tools and calls all three, checking the
// results the way an agent reads them.
//
// Usage: node client_test.mjs [path/to/tarv]   (default: build/tarv)
// Exit status: 0 passed, 1 failed, 77 skipped (the SDK is not installed;
// scripts/bootstrap installs it).

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { dirname, join, resolve } from "node:path";
import { fileURLToPath } from "node:url";

const here = dirname(fileURLToPath(import.meta.url));
const sourceDir = resolve(here, "..", "..");
const tarv = resolve(process.argv[2] ?? join(sourceDir, "build", "tarv"));

let Client, StdioClientTransport, McpError;
try {
  ({ Client } = await import("@modelcontextprotocol/sdk/client/index.js"));
  ({ StdioClientTransport } = await import("@modelcontextprotocol/sdk/client/stdio.js"));
  ({ McpError } = await import("@modelcontextprotocol/sdk/types.js"));
} catch (error) {
  console.log(`skipped: the MCP SDK is not installed (run scripts/bootstrap): ${error.message}`);
  process.exit(77);
}

// A hung server must fail the test, not the CI job's time limit.
const watchdog = setTimeout(() => {
  console.error("FAIL: no answer within 60 seconds");
  process.exit(1);
}, 60_000);

const work = mkdtempSync(join(tmpdir(), "tarv-mcp-client-"));
const records = [
  "d 4096 1700000000 /srv/app",
  "f 100 1700000000 /srv/app/main.rs",
  "f 2000 1700000100 /srv/app/main_test.rs",
  "f 30 1700000200 /srv/app/README.md",
  "d 0 1700000000 /srv/app/docs",
  "f 5000 1700000000 /srv/app/docs/invoice 2026.pdf",
];
writeFileSync(join(work, "app.gfind"), records.map((r) => r + "\0").join(""));
const config = join(work, "config.json");
writeFileSync(
  config,
  JSON.stringify({
    schema: 1,
    sources: [
      {
        id: "app", label: "App", format: "gfind", file: "app.gfind", root: "/srv", state: "complete",
        scannedAt: "2026-10-01T12:00:00Z", virtualDirectory: null,
      },
    ],
  }),
);

const env = {
  PATH: process.env.PATH ?? "/usr/bin:/bin",
  TARV_COMPATIBILITY: join(sourceDir, "data", "vantor-v1.json"),
  TARV_SUPPORT_DIRECTORY: join(work, "support"),
  TARV_INDEX_CACHE: join(work, "cache"),
  HOME: join(work, "home"),
  XDG_CONFIG_HOME: join(work, "xdg-config"),
  XDG_DATA_HOME: join(work, "xdg-data"),
  TZ: "UTC",
};

const transport = new StdioClientTransport({ command: tarv, args: ["mcp", "--config", config], env, stderr: "inherit" });
const client = new Client({ name: "tarv-client-test", version: "1.0.0" });

function text(result) {
  assert.equal(result.content.length, 1);
  assert.equal(result.content[0].type, "text");
  return result.content[0].text;
}

async function search(args) {
  const result = await client.callTool({ name: "search_files", arguments: args });
  assert.equal(result.isError, false, text(result));
  return JSON.parse(text(result));
}

let failed = false;
try {
  await client.connect(transport);
  const server = client.getServerVersion();
  assert.equal(server.name, "tarv");
  assert.match(server.version, /^\d+\.\d+/);
  assert.deepEqual(client.getServerCapabilities().tools, {});
  await client.ping();

  const { tools } = await client.listTools();
  assert.deepEqual(tools.map((t) => t.name), ["search_files", "index_status", "search_syntax"]);
  const schema = tools[0].inputSchema;
  assert.deepEqual(schema.required, ["query"]);
  assert.equal(schema.properties.sort.enum.length, 14);
  assert.equal(schema.properties.limit.maximum, 1000);
  assert.match(tools[0].description, /^Search file and folder names on this Mac/);

  // An agent's first search: source files of one language, tests left out.
  let page = await search({ query: "path:/srv/app ext:rs !test" });
  assert.deepEqual(page.results.map((r) => r.path), ["/srv/app/main.rs"]);
  assert.deepEqual(page.results[0], {
    path: "/srv/app/main.rs", name: "main.rs", type: "file", source: "app", size: 100,
    modified: "2023-11-14T22:13:20Z",
  });
  assert.equal(page.total, 1);
  assert.equal(typeof page.searchMs, "number");

  // Paging in another order, with a limit the server clamps.
  page = await search({ query: "file:", sort: "size-desc", limit: 2, offset: 1 });
  assert.equal(page.total, 4);
  assert.equal(page.returned, 2);
  assert.deepEqual(page.results.map((r) => r.name), ["main_test.rs", "main.rs"]);
  page = await search({ query: "", limit: 0 });
  assert.equal(page.returned, 1);
  assert.equal(page.total, records.length);

  // A phrase with a space and a folder.
  page = await search({ query: '"invoice 2026"' });
  assert.deepEqual(page.results.map((r) => r.path), ["/srv/app/docs/invoice 2026.pdf"]);
  page = await search({ query: "folder: docs" });
  assert.equal(page.results[0].type, "folder");

  // Mistakes come back as readable tool errors.
  const bad = await client.callTool({ name: "search_files", arguments: { query: "x", sort: "largest" } });
  assert.equal(bad.isError, true);
  assert.equal(text(bad), "Unsupported sort: largest");

  const status = JSON.parse(text(await client.callTool({ name: "index_status", arguments: {} })));
  assert.equal(status.configuration, config);
  assert.equal(status.records, records.length);
  assert.deepEqual(status.sources, [
    { id: "app", label: "App", root: "/srv", records: records.length, state: "complete", scannedAt: "2026-10-01T12:00:00Z" },
  ]);

  const syntax = await client.callTool({ name: "search_syntax", arguments: {} });
  assert.equal(syntax.isError, false);
  const printed = execFileSync(tarv, ["syntax"], { env, encoding: "utf8" });
  assert.equal(text(syntax) + "\n", printed);

  await assert.rejects(client.callTool({ name: "delete_files", arguments: {} }), (error) => {
    assert.ok(error instanceof McpError);
    assert.equal(error.code, -32602);
    assert.match(error.message, /Unknown tool: delete_files/);
    return true;
  });
  console.log("ok: the SDK client listed the tools and called all three");
} catch (error) {
  failed = true;
  console.error("FAIL:", error);
} finally {
  await client.close().catch(() => {});
  clearTimeout(watchdog);
  rmSync(work, { recursive: true, force: true });
}
process.exit(failed ? 1 : 0);
