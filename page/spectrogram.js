"use strict";
// Draws spectrograms, levels over time and frequency, on a canvas.

const Spectrogram = (() => {
  const WINDOW = 512;
  const FAINTEST_DB = -100, LOUDEST_DB = -20;
  const MARGIN = { left: 34, bottom: 16 };
  // From black over purple and orange to pale yellow, in even steps of lightness.
  const COLOURS = [[0, 0, 4], [40, 17, 89], [101, 26, 128], [160, 47, 127], [219, 71, 106], [251, 127, 97],
                   [254, 194, 135], [252, 253, 191]];

  const hann = Float32Array.from({ length: WINDOW }, (_, n) => 0.5 - 0.5 * Math.cos(2 * Math.PI * n / WINDOW));

  /** The plain radix-2 transform, in place. The length is a power of two. */
  function transform(re, im) {
    const n = re.length;
    for (let i = 1, j = 0; i < n; ++i) {
      let bit = n >> 1;
      for (; j & bit; bit >>= 1) j ^= bit;
      j ^= bit;
      if (i < j) {
        [re[i], re[j]] = [re[j], re[i]];
        [im[i], im[j]] = [im[j], im[i]];
      }
    }
    for (let size = 2; size <= n; size *= 2) {
      for (let k = 0; k < size / 2; ++k) {
        const c = Math.cos(2 * Math.PI * k / size), s = -Math.sin(2 * Math.PI * k / size);
        for (let a = k; a < n; a += size) {
          const b = a + size / 2;
          const x = re[b] * c - im[b] * s, y = re[b] * s + im[b] * c;
          re[b] = re[a] - x;
          im[b] = im[a] - y;
          re[a] += x;
          im[a] += y;
        }
      }
    }
  }

  /** Levels of one window, 0 to 1, lowest frequency first. */
  function levels(samples, start) {
    const re = new Float32Array(WINDOW), im = new Float32Array(WINDOW);
    for (let n = 0; n < WINDOW; ++n) re[n] = (samples[start + n] || 0) * hann[n];
    transform(re, im);
    return Float32Array.from({ length: WINDOW / 2 }, (_, k) => {
      const db = 20 * Math.log10(Math.hypot(re[k], im[k]) * 4 / WINDOW + 1e-10);
      return Math.min(1, Math.max(0, (db - FAINTEST_DB) / (LOUDEST_DB - FAINTEST_DB)));
    });
  }

  function colour(level) {
    const place = level * (COLOURS.length - 1);
    const below = Math.min(Math.floor(place), COLOURS.length - 2);
    return COLOURS[below].map((value, i) => value + (place - below) * (COLOURS[below + 1][i] - value));
  }
  const palette = Array.from({ length: 256 }, (_, i) => colour(i / 255));

  function drawAxes(context, width, height, seconds, rate) {
    context.fillStyle = getComputedStyle(context.canvas).color;
    context.font = "11px system-ui, sans-serif";
    const step = seconds > 12 ? 5 : 2;
    context.textAlign = "center";
    for (let s = 0; s < seconds; s += step)
      context.fillText(s + " s", Math.max(MARGIN.left + width * s / seconds, MARGIN.left + 8), height + 12);
    context.textAlign = "right";
    for (const part of [0, 0.5, 1])
      context.fillText(rate / 2000 * part + (part === 1 ? " kHz" : ""), MARGIN.left - 3,
                       Math.min(Math.max(height * (1 - part) + 4, 9), height));
  }

  /** `samples` of `rate` Hz, full scale 1. */
  function draw(canvas, samples, rate) {
    const context = canvas.getContext("2d");
    context.clearRect(0, 0, canvas.width, canvas.height);
    const width = canvas.width - MARGIN.left, height = canvas.height - MARGIN.bottom;
    const image = context.createImageData(width, height);
    for (let x = 0; x < width; ++x) {
      const column = levels(samples, Math.round(x / width * Math.max(0, samples.length - WINDOW)));
      for (let y = 0; y < height; ++y) {
        const bin = Math.floor((1 - (y + 0.5) / height) * column.length);
        const [r, g, b] = palette[Math.round(column[bin] * 255)];
        image.data.set([r, g, b, 255], 4 * (y * width + x));
      }
    }
    context.putImageData(image, MARGIN.left, 0);
    drawAxes(context, width, height, samples.length / rate, rate);
  }

  return { draw };
})();
