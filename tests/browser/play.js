// Plays a recording in the system's chromium, headless: once from a <video> element, once appended
// to a MediaSource SourceBuffer (the init segment, then each moof and mdat pair), each to its end.
// Prints one JSON line: for each way, whether it ended, the media error, the played length and the
// pictures decoded. Usage: node play.js FILE.mp4 [CHROMIUM]
'use strict';
const fs = require('fs');
const { chromium } = require('playwright-core');

const file = process.argv[2];
const executablePath = process.argv[3] || '/usr/bin/chromium';
const origin = 'http://boxweave.test';

// The top-level boxes of the file: the init segment is everything before the first moof, a segment
// each moof with the boxes up to the next moof (or mfra).
function segments(bytes) {
  const boxes = [];
  for (let p = 0; p + 8 <= bytes.length;) {
    const size = bytes.readUInt32BE(p);
    const type = bytes.toString('latin1', p + 4, p + 8);
    if (size < 8 || p + size > bytes.length) break;
    boxes.push({ type, p, size });
    p += size;
  }
  const firstMoof = boxes.findIndex((b) => b.type === 'moof');
  const out = { init: [0, firstMoof < 0 ? bytes.length : boxes[firstMoof].p], media: [] };
  for (let i = firstMoof; i >= 0 && i < boxes.length; ++i) {
    if (boxes[i].type !== 'moof') continue;
    let end = boxes[i].p + boxes[i].size;
    for (let j = i + 1; j < boxes.length && boxes[j].type !== 'moof' && boxes[j].type !== 'mfra'; ++j)
      end = boxes[j].p + boxes[j].size;
    out.media.push([boxes[i].p, end]);
  }
  return out;
}

// "avc1.PPCCLL" from the avcC record, "mp4a.40.2" when an audio entry is there.
function codecs(bytes) {
  const list = [];
  const avcc = bytes.indexOf('avcC', 0, 'latin1');
  if (avcc > 0) list.push('avc1.' + bytes.slice(avcc + 5, avcc + 8).toString('hex'));
  if (bytes.indexOf('mp4a', 0, 'latin1') > 0) list.push('mp4a.40.2');
  return list.join(', ');
}

async function main() {
  const bytes = fs.readFileSync(file);
  const seg = segments(bytes);
  const type = `video/mp4; codecs="${codecs(bytes)}"`;
  const browser = await chromium.launch({
    executablePath,
    headless: true,
    args: ['--autoplay-policy=no-user-gesture-required', '--no-sandbox', '--mute-audio'],
  });
  try {
    const page = await browser.newPage();
    await page.route(`${origin}/**`, (route) => {
      const url = route.request().url();
      if (url.endsWith('/file.mp4'))
        return route.fulfill({ status: 200, contentType: 'video/mp4', body: bytes });
      return route.fulfill({ status: 200, contentType: 'text/html', body: '<!doctype html><body></body>' });
    });
    await page.goto(`${origin}/index.html`);
    const result = await page.evaluate(
      async ({ type, seg }) => {
        // Plays a prepared element to its end; resolves with what it saw.
        const playToEnd = (video, setup) =>
          new Promise((resolve) => {
            const report = (how) => {
              const q = video.getVideoPlaybackQuality ? video.getVideoPlaybackQuality() : {};
              resolve({
                how,
                ended: video.ended,
                error: video.error ? `${video.error.code} ${video.error.message}` : null,
                duration: video.duration,
                currentTime: video.currentTime,
                frames: q.totalVideoFrames || 0,
                dropped: q.droppedVideoFrames || 0,
              });
            };
            const timer = setTimeout(() => report('timeout'), 60000);
            video.muted = true;
            video.addEventListener('ended', () => { clearTimeout(timer); report('ended'); });
            video.addEventListener('error', () => { clearTimeout(timer); report('error'); });
            setup().then(() => video.play()).catch((e) => { clearTimeout(timer); resolve({ how: 'exception', error: String(e) }); });
          });

        const file = await (await fetch('/file.mp4')).arrayBuffer();
        const out = { type, supported: MediaSource.isTypeSupported(type) };

        const plain = document.createElement('video');
        document.body.appendChild(plain);
        out.element = await playToEnd(plain, async () => { plain.src = '/file.mp4'; });

        const mse = document.createElement('video');
        document.body.appendChild(mse);
        out.mse = await playToEnd(mse, () => new Promise((resolve, reject) => {
          const ms = new MediaSource();
          mse.src = URL.createObjectURL(ms);
          ms.addEventListener('sourceopen', async () => {
            try {
              const sb = ms.addSourceBuffer(type);
              const append = (range) => new Promise((ok, fail) => {
                sb.addEventListener('updateend', ok, { once: true });
                sb.addEventListener('error', () => fail(new Error('SourceBuffer error')), { once: true });
                sb.appendBuffer(file.slice(range[0], range[1]));
              });
              await append(seg.init);
              for (const m of seg.media) await append(m);
              const b = sb.buffered;
              out.buffered = [];
              for (let i = 0; i < b.length; ++i) out.buffered.push([b.start(i), b.end(i)]);
              ms.endOfStream();
              resolve();
            } catch (e) {
              reject(e);
            }
          }, { once: true });
        }));
        return out;
      },
      { type, seg },
    );
    result.segments = seg.media.length;
    console.log(JSON.stringify(result));
  } finally {
    await browser.close();
  }
}

main().catch((e) => {
  console.log(JSON.stringify({ fatal: String(e && e.stack || e) }));
  process.exit(1);
});
