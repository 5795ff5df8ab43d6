// The same two audio paths in Node.js, the way the provider's JavaScript SDK encodes them:
// JSON.stringify with Buffer.toString('base64') up, JSON.parse with Buffer.from(…, 'base64')
// down. Prints one JSON line: nanoseconds per block for each direction.
'use strict';

const bytes = 4096;
const pcm = Buffer.alloc(bytes);
for (let i = 0; i < bytes; i++) pcm[i] = (i * 37) ^ (i >> 3);

// CPU nanoseconds per call, best of several short runs, as the C++ side measures.
function cpuNs() {
  const usage = process.cpuUsage();
  return (usage.user + usage.system) * 1000;
}

function nsPerCall(work, runs = 9, seconds = 0.15) {
  for (let i = 0; i < 2000; i++) work();
  let best = Infinity;
  for (let run = 0; run < runs; run++) {
    let calls = 0;
    const start = cpuNs();
    let elapsed = 0;
    do {
      for (let i = 0; i < 100; i++) work();
      calls += 100;
      elapsed = cpuNs() - start;
    } while (elapsed < seconds * 1e9);
    best = Math.min(best, elapsed / calls);
  }
  return best;
}

let sink = 0;
const uplink = nsPerCall(() => {
  const text = JSON.stringify({ type: 'input_audio_buffer.append', audio: pcm.toString('base64') });
  sink += Buffer.byteLength(text, 'utf8'); // what a WebSocket send measures and copies out
});

const delta = JSON.stringify({
  type: 'response.output_audio.delta',
  event_id: 'event_1',
  response_id: 'resp_1',
  item_id: 'item_1',
  output_index: 0,
  content_index: 0,
  delta: pcm.toString('base64'),
});
const downlink = nsPerCall(() => {
  const event = JSON.parse(delta);
  if (event.type === 'response.output_audio.delta') sink += Buffer.from(event.delta, 'base64').length;
});

process.stdout.write(JSON.stringify({ uplink, downlink, sink: sink > 0 }) + '\n');
