// Prints operations as they are stored.
//
//     node follow.mjs ADDRESS TOKEN [AFTER [COUNT]]
//
// ADDRESS is one of the agent's, for example http://127.0.0.1:7481. AFTER is "beginning" or the id of an event; COUNT ends it
// after so many operations. Where the connection breaks it goes on behind the last event, and misses nothing.
import { setTimeout } from "node:timers/promises";

/// What asking again does not help against.
class Refused extends Error {}

/// Each event of an answer, until the connection ends.
async function* events(answer) {
  let text = "";
  for await (const piece of answer.body.pipeThrough(new TextDecoderStream())) {
    text += piece;
    const whole = text.split("\n\n");
    text = whole.pop();
    for (const event of whole)
      yield Object.fromEntries(event.split("\n").map((line) => [line.slice(0, line.indexOf(":")), line.slice(line.indexOf(":") + 2)]));
  }
}

/// The records that come, for as long as somebody takes them.
async function* follow(address, token, after, question) {
  const parameters = new URLSearchParams(question);
  for (;;) {
    let wait = 1;
    try {
      if (after) parameters.set("after", after);
      const answer = await fetch(`${address}/v1/follow?${parameters}`, { headers: { Authorization: `Bearer ${token}` } });
      if (answer.status === 429 || answer.status === 503) {
        wait = Number(answer.headers.get("Retry-After"));
        await answer.body.cancel();
      } else if (!answer.ok) {
        const problem = await answer.json();
        throw new Refused(`${problem.code}: ${problem.detail}`);
      } else {
        for await (const { event, id, data } of events(answer)) {
          after = id ?? after;
          if (event === "end" && JSON.parse(data).code === "revoked") throw new Refused(JSON.parse(data).detail);
          if (["operations", "events", "backups", "environments"].includes(event)) yield JSON.parse(data);
        }
      }
    } catch (failure) {
      if (failure instanceof Refused) throw failure;
      console.error(`asking again: ${failure.message}`);
    }
    await setTimeout(wait * 1000);
  }
}

const [address, token, after, count] = process.argv.slice(2);
let number = 0;
for await (const record of follow(address, token, after, { source: "operations", fields: "id,status" })) {
  console.log(record.id, record.status);
  if (++number === Number(count)) process.exit(0);
}
