"use strict";
// Plays the parts of a scene in time with each other and mixes them by gains.

/** The linear factor of a slider in dB; at its lower end `least` it is 0. */
function factorOf(db, least) {
  return db <= least ? 0 : Math.pow(10, db / 20);
}

/**
 * The audio graph of one scene, with a meter behind every gain:
 *   part -> gain --+
 *   part -> gain --+-> gain of "Mix" --> outputs.mix ------> loudspeaker
 *   original -> gain ------------------> outputs.original -> loudspeaker     one of the two outputs is on
 */
class Mixer {
  /** `buffers`: an AudioBuffer for each part and for "Original", by name, all of the same length. */
  constructor(context, buffers) {
    this.context = context;
    this.buffers = buffers;
    this.parts = Object.keys(buffers).filter((name) => name !== "Original");
    this.sources = null;
    this.offset = 0;
    this.startedAt = 0;
    this.gains = {};
    this.meters = {};
    for (const name of [...this.parts, "Original", "Mix"]) {
      this.gains[name] = new GainNode(context);
      this.meters[name] = new AnalyserNode(context, { fftSize: 4096 });
      this.gains[name].connect(this.meters[name]);
    }
    for (const name of this.parts) this.gains[name].connect(this.gains.Mix);
    this.outputs = { mix: new GainNode(context), original: new GainNode(context, { gain: 0 }) };
    this.gains.Mix.connect(this.outputs.mix).connect(context.destination);
    this.gains.Original.connect(this.outputs.original).connect(context.destination);
  }

  get duration() { return this.buffers.Original.duration; }
  get isPlaying() { return this.sources !== null; }
  get position() {
    const played = this.isPlaying ? this.context.currentTime - this.startedAt : 0;
    return (this.offset + played) % this.duration;
  }

  /** All parts start at the same time of the audio clock, so they are in time to the sample. */
  play() {
    if (this.isPlaying) return;
    this.context.resume();
    this.startedAt = this.context.currentTime + 0.05;
    this.sources = Object.entries(this.buffers).map(([name, buffer]) => {
      const source = new AudioBufferSourceNode(this.context, { buffer, loop: true });
      source.connect(this.gains[name]);
      source.start(this.startedAt, this.offset);
      return source;
    });
  }

  pause() {
    if (!this.isPlaying) return;
    const position = Math.max(0, this.position);
    for (const source of this.sources) source.disconnect();
    this.sources.forEach((source) => source.stop());
    this.sources = null;
    this.offset = position;
  }

  seek(seconds) {
    const wasPlaying = this.isPlaying;
    this.pause();
    this.offset = Math.min(Math.max(0, seconds), this.duration - 0.01);
    if (wasPlaying) this.play();
  }

  /** `name`: a part, or "Mix" for the master gain. */
  setGain(name, factor) {
    this.glide(this.gains[name].gain, factor);
  }

  /** `which`: "mix" or "original". */
  listen(which) {
    for (const [name, output] of Object.entries(this.outputs)) this.glide(output.gain, name === which ? 1 : 0);
  }

  /** Changes a gain over a few milliseconds; a sudden step would click. */
  glide(parameter, value) {
    parameter.cancelScheduledValues(this.context.currentTime);
    parameter.setTargetAtTime(value, this.context.currentTime, 0.005);
  }

  /** Level of about the last tenth of a second, in dB of full scale. */
  level(name) {
    const samples = new Float32Array(this.meters[name].fftSize);
    this.meters[name].getFloatTimeDomainData(samples);
    let sum = 0;
    for (const sample of samples) sum += sample * sample;
    return 10 * Math.log10(sum / samples.length + 1e-12);
  }

  /** The whole mix with the given factors, first channel. `factors`: one per part, and "Mix". */
  mixed(factors) {
    const result = new Float32Array(this.buffers.Original.length);
    for (const name of this.parts) {
      const samples = this.buffers[name].getChannelData(0);
      const factor = factors[name] * factors.Mix;
      for (let i = 0; i < result.length; ++i) result[i] += factor * samples[i];
    }
    return result;
  }
}
