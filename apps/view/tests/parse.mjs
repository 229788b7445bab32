// Reads an array of diagrams, as JSON, and writes what Mermaid's own parser makes of each: its actors
// and the texts of its arrows and notes, or the error.
import { readFileSync } from 'node:fs';
import mermaid from 'mermaid';

const found = [];
for (const text of JSON.parse(readFileSync(0, 'utf8'))) {
  try {
    await mermaid.parse(text);
    const diagram = await mermaid.mermaidAPI.getDiagramFromText(text);
    const decode = (shown) => shown.replace(/ﬂ°°(\d+)¶ß/g, (_, code) => String.fromCodePoint(code));
    found.push({
      actors: [...diagram.db.getActors().values()].map((actor) => decode(actor.description)),
      texts: diagram.db.getMessages().map((message) => decode(message.message)),
    });
  } catch (error) {
    found.push({ error: String(error).slice(0, 300) });
  }
}
console.log(JSON.stringify(found));
