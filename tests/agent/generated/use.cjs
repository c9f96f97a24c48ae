// Asks a page and follows a log by the client that a generator has made of the agent's description.
//
//     node use.cjs MODULES CLIENT ADDRESS TOKEN
//
// MODULES is the folder of the modules of package.json, CLIENT the one of the client, which is made in TypeScript.
"use strict";
const fs = require("node:fs");
const path = require("node:path");

const [modules, folder, address, token] = process.argv.slice(2);

/// Without looking at types, which takes the compiler seconds.
function compile() {
  const typescript = require(path.join(modules, "typescript"));
  const compilerOptions = { module: typescript.ModuleKind.CommonJS, target: typescript.ScriptTarget.ES2022 };
  for (const name of fs.readdirSync(folder, { recursive: true })) {
    const file = path.join(folder, name);
    if (!file.endsWith(".ts")) continue;
    const made = typescript.transpileModule(fs.readFileSync(file, "utf8"), { compilerOptions });
    fs.writeFileSync(file.replace(/ts$/, "js"), made.outputText);
  }
}

async function pages(agent) {
  const question = { fields: ["id", "status"], sort: ["id"], limit: 2 };
  const ask = (more) => agent.getV1ViewsViewRows({ path: { view: "vOpLog" }, query: { ...question, ...more } });
  const first = await ask({ count: "exact" });
  console.log("first", JSON.stringify(first.data.rows), first.data.page.total);
  const second = await ask({ after: first.data.page.next });
  console.log("second", JSON.stringify(second.data.rows), second.data.page.next);
  const wrong = await ask({ where: "satus = 1" });
  console.log("wrong", wrong.response.status, wrong.error.code, wrong.error.suggestion);
}

/// What there is of operations, and the one that comes when that has been told.
async function follow(agent) {
  const stop = new AbortController();
  const told = [];
  const { stream } = await agent.getV1Follow({
    query: { source: ["operations"], fields: ["id", "status"], after: "beginning" },
    signal: stop.signal,
    onSseEvent: async ({ event, data }) => {
      if (event === "operations") told.push(JSON.stringify(data));
      if (event !== "live") return;
      told.push("live");
      const kept = await fetch(`${address}/v1/records`, {
        method: "POST",
        headers: { Authorization: `Bearer ${token}` },
        body: '{"kind":"operation","id":"later","status":7,"time":1,"eid":"11111111-1111-1111-1111-111111111111"}',
      });
      if (!kept.ok) throw new Error(await kept.text());
    },
  });
  for await (const ignored of stream) {
    if (told.some((one) => one.includes('"later"'))) break;
  }
  stop.abort();
  console.log("followed", told.join(" "));
}

async function main() {
  compile();
  const { client } = require(path.join(folder, "client.gen.js"));
  const agent = require(path.join(folder, "sdk.gen.js"));
  client.setConfig({ baseUrl: address, auth: () => token });
  await pages(agent);
  await follow(agent);
}

main().then(
  () => process.exit(0),
  (failure) => {
    console.error(failure);
    process.exit(1);
  },
);
