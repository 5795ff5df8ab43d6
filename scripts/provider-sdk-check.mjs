// Checks what Vemira sends to the realtime provider against the provider's own SDK (npm
// "openai"): each distinct client event captured from scripted whole calls must type-check as
// a RealtimeClientEvent, and the default model and transcription model must not be listed
// with an announced shutdown date. Usage:
//   node provider-sdk-check.mjs <folder with node_modules> <events.jsonl> <realtime-models.json>
import { execFileSync } from 'node:child_process';
import { readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';

const [work, eventsFile, catalogueFile] = process.argv.slice(2);
const failures = [];

// Distinct events only: a call sends hundreds of audio frames of one shape.
const lines = readFileSync(eventsFile, 'utf8').split('\n').filter((line) => line.trim());
const events = [...new Set(lines.map((line) => JSON.stringify(JSON.parse(line))))];
const types = [...new Set(events.map((text) => JSON.parse(text).type))].sort();
if (!types.includes('session.update') || !types.includes('response.create') ||
    !types.includes('input_audio_buffer.append'))
    failures.push(`the scripted calls sent too little to check (types: ${types.join(', ')})`);

const source = [
    "import type { RealtimeClientEvent } from 'openai/resources/realtime/realtime';",
    ...events.map((text, i) => `export const event${i} = ${text} satisfies RealtimeClientEvent;`),
    '',
].join('\n');
writeFileSync(join(work, 'client-events.ts'), source);
writeFileSync(join(work, 'tsconfig.json'), JSON.stringify({
    compilerOptions: {
        strict: true, noEmit: true, target: 'es2022', module: 'nodenext',
        moduleResolution: 'nodenext', skipLibCheck: true, types: [],
    },
    files: ['client-events.ts'],
}));
try {
    execFileSync(process.execPath, [join(work, 'node_modules/typescript/bin/tsc'), '-p', work],
                 { stdio: 'pipe', encoding: 'utf8' });
} catch (error) {
    failures.push(`client events do not type-check against the SDK:\n${error.stdout}${error.stderr}`);
}

// "Deprecated values: - "a", "b": Announced shutdown date: 2027-01-20." in the doc comments.
const declarations = readFileSync(
    join(work, 'node_modules/openai/resources/realtime/realtime.d.ts'), 'utf8')
    .replace(/^\s*\*\s?/gm, ' ').replace(/\s+/g, ' ');
const shutdowns = new Map();
for (const match of declarations.matchAll(/- ((?:"[^"]+",? ?)+): Announced shutdown date: (\d{4}-\d{2}-\d{2})/g)) {
    for (const name of match[1].matchAll(/"([^"]+)"/g))
        shutdowns.set(name[1], match[2]);
}
if (shutdowns.size === 0)
    failures.push('no shutdown date found in the SDK: its doc comments changed form');

const catalogue = JSON.parse(readFileSync(catalogueFile, 'utf8'));
const chosen = [['default model', catalogue.defaultModel],
                ['transcription model', catalogue.transcription.model]];
for (const [role, name] of chosen) {
    if (shutdowns.has(name))
        failures.push(`the ${role} ${name} is listed for shutdown on ${shutdowns.get(name)}`);
}
for (const model of catalogue.models) {
    const listed = shutdowns.get(model.name);
    if (listed && listed !== model.shutdown)
        failures.push(`${model.name}: the SDK announces a shutdown on ${listed}, the model table says ${model.shutdown}`);
}
for (const text of events) {
    const transcription = JSON.parse(text).session?.audio?.input?.transcription?.model;
    if (transcription && shutdowns.has(transcription))
        failures.push(`a call asked for transcription by ${transcription}, listed for shutdown`);
}

if (failures.length) {
    console.error(failures.join('\n'));
    process.exit(1);
}
console.log(`${events.length} distinct client events (${types.join(', ')}) type-check; ` +
            `${catalogue.defaultModel} and ${catalogue.transcription.model} have no announced shutdown`);
