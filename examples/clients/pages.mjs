// Prints a day's failed operations, page by page.
//
//     node pages.mjs ADDRESS TOKEN [CONDITION]
//
// ADDRESS is one of the agent's, for example http://127.0.0.1:7481.

/// Each page of an answer, as the agent tells it.
async function* pages(address, token, view, question) {
  const parameters = new URLSearchParams(question);
  for (;;) {
    const answer = await fetch(`${address}/v1/views/${view}/rows?${parameters}`, {
      headers: { Authorization: `Bearer ${token}` },
    });
    const document = await answer.json();
    if (!answer.ok) throw new Error(`${document.code}: ${document.detail}`);
    yield document;
    if (document.page.next === null) return;
    parameters.set("after", document.page.next);
  }
}

const [address, token, where = "status <> 0 and time > now() - 1d"] = process.argv.slice(2);
let rows = 0;
for await (const page of pages(address, token, "vOpLog", { fields: "time,op,package,status", where, sort: "-time", limit: 100 })) {
  for (const row of page.rows) console.log(row.map((value) => value ?? "").join("\t"));
  rows += page.page.returned;
}
console.error(`${rows} rows`);
