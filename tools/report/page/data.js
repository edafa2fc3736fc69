'use strict';
// The data that kestrix_report left: an index of all micrographs, and chunks that are fetched when they are needed.
const Data = {
  index: null,      // as page_data.cpp writes it; scores decoded
  first: null,      // number of each micrograph's first pick among all, and behind the last their number
  chunks: new Map(),   // by number, decoded
  waiting: new Map(),  // by number: what is to be called when a chunk is there

  floats(text) {
    const bytes = atob(text), numbers = new Uint8Array(bytes.length);
    for (let i = 0; i < bytes.length; i++) numbers[i] = bytes.charCodeAt(i);
    return new Float32Array(numbers.buffer);
  },

  takeIndex(index) {
    index.scores = Data.floats(index.scores);
    index.problems = index.problems || {};
    Data.index = index;
    Data.first = new Int32Array(index.names.length + 1);
    index.counts.forEach((count, i) => { Data.first[i + 1] = Data.first[i] + count; });
  },

  takeChunk(number, chunk) {
    for (const column of ['x', 'y', 'average', 'sigma', 'rejected'])
      if (chunk[column] !== undefined) chunk[column] = Data.floats(chunk[column]);
    const none = new Float32Array(chunk.x.length).fill(NaN);
    chunk.average = chunk.average || none;
    chunk.sigma = chunk.sigma || none;
    Data.chunks.set(number, chunk);
    for (const call of Data.waiting.get(number) || []) call();
    Data.waiting.delete(number);
  },

  chunkOf(i) { return Math.floor(i / Data.index.perChunk); },
  chunkCount() { return Math.ceil(Data.index.names.length / Data.index.perChunk); },
  isHere(i) { return Data.chunks.has(Data.chunkOf(i)); },

  // Calls when the chunk is there, at once if it is already. A page that is opened as a file can load scripts only.
  load(number, call) {
    if (Data.chunks.has(number)) return call();
    if (Data.waiting.has(number)) return void Data.waiting.get(number).push(call);
    Data.waiting.set(number, [call]);
    const script = document.createElement('script');
    script.src = `data/chunk_${number}.js`;
    script.onload = () => script.remove();
    script.onerror = () => Panel.say(`${script.src} is missing: the folder of this page is not complete`);
    document.head.append(script);
  },

  // The picks of a micrograph whose chunk is here.
  picks(i) {
    const chunk = Data.chunks.get(Data.chunkOf(i)), start = Data.first[Data.chunkOf(i) * Data.index.perChunk];
    const from = Data.first[i], to = Data.first[i + 1];
    const part = column => chunk[column].subarray(from - start, to - start);
    return {x: part('x'), y: part('y'), average: part('average'), sigma: part('sigma'),
            score: Data.index.scores.subarray(from, to)};
  },

  rejected(i) {
    const chunk = Data.chunks.get(Data.chunkOf(i)), place = i % Data.index.perChunk;
    let from = 0;
    for (let j = 0; j < place; j++) from += chunk.rejectedCounts[j];
    return chunk.rejected.subarray(2 * from, 2 * (from + chunk.rejectedCounts[place]));
  },

  // Grey levels of the picture below and above which the shares of the contrast step lie.
  levels(i, step) {
    const levels = atob(Data.chunks.get(Data.chunkOf(i)).levels[i % Data.index.perChunk]);
    const steps = Data.index.clippedShares.length;
    return levels ? [levels.charCodeAt(step), levels.charCodeAt(steps + step)] : [0, 255];
  },

  picture(i, folder) {
    if (Data.index.nx[i] === 0) return '';
    if (Data.index.imagesApart) return `${folder}/${String(i).padStart(6, '0')}.jpg`;
    return 'data:image/jpeg;base64,' + Data.chunks.get(Data.chunkOf(i)).images[i % Data.index.perChunk];
  },
};

const kestrixIndex = Data.takeIndex, kestrixChunk = Data.takeChunk;
