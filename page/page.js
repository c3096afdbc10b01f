"use strict";
// Builds a section for each of window.scenes (written by the demonstration) and connects its controls.

// By sample rate of the audio. At another rate the browser would resample each part.
const contexts = {};
const players = [];

function contextOf(rate) {
  contexts[rate] ??= new AudioContext({ sampleRate: rate });
  return contexts[rate];
}

function fromTemplate(id) {
  return document.getElementById(id).content.firstElementChild.cloneNode(true);
}

async function decode(base64, context) {
  const bytes = Uint8Array.from(atob(base64), (c) => c.charCodeAt(0));
  return context.decodeAudioData(bytes.buffer);
}

function decibelText(db, least) {
  return db <= least ? "off" : (db > 0 ? "+" : "") + db + " dB";
}

/** One row of the page: a part with its gain, the mix with the master gain, or the original without a gain. */
class Track {
  constructor(scene, mixer, name, label, onGain) {
    this.mixer = mixer;
    this.name = name;
    this.element = fromTemplate("track");
    this.element.querySelector("h3").textContent = name;
    this.meter = this.element.querySelector(".level");
    this.canvas = this.element.querySelector(".spectrogram");
    this.canvas.setAttribute("aria-label", `Spectrogram of ${name}, ${scene.title}`);
    this.slider = this.element.querySelector(".gain input");
    this.shown = this.element.querySelector(".gain output");
    if (label === null) {
      this.element.querySelector(".gain").remove();
      this.slider = null;
      return;
    }
    this.element.querySelector(".gain .label").textContent = label;
    this.slider.addEventListener("input", () => this.apply());
    this.slider.addEventListener("change", onGain);
  }

  get factor() { return factorOf(Number(this.slider.value), Number(this.slider.min)); }

  apply() {
    const text = decibelText(Number(this.slider.value), Number(this.slider.min));
    this.shown.textContent = text;
    this.slider.setAttribute("aria-valuetext", text);
    this.mixer.setGain(this.name, this.factor);
  }

  setDecibels(db) {
    if (!this.slider) return;
    this.slider.value = db;
    this.apply();
  }
}

class Player {
  constructor(scene, buffers) {
    this.scene = scene;
    this.mixer = new Mixer(contextOf(scene.rate), buffers);
    this.element = fromTemplate("scene");
    const find = (selector) => this.element.querySelector(selector);
    find("h2").textContent = scene.title;
    find(".about").textContent = scene.about;
    this.showFacts(find(".facts"));
    this.playButton = find(".play");
    this.playButton.addEventListener("click", () => this.toggle());
    this.seekBar = find(".seek input");
    this.seekBar.max = this.mixer.duration;
    this.seekBar.addEventListener("input", () => this.mixer.seek(Number(this.seekBar.value)));
    for (const radio of this.element.querySelectorAll(".listen input")) {
      radio.name = "listen-" + scene.name;
      radio.addEventListener("change", () => this.mixer.listen(radio.value));
    }
    find(".reset").addEventListener("click", () => this.reset());
    this.addTracks(find(".tracks"));
  }

  showFacts(list) {
    for (const [term, value] of Object.entries(this.scene.facts)) {
      const pair = document.createElement("div");
      pair.innerHTML = "<dt></dt><dd></dd>";
      pair.firstElementChild.textContent = term;
      pair.lastElementChild.textContent = value;
      list.append(pair);
    }
  }

  addTracks(parent) {
    const redraw = () => this.drawMix();
    this.tracks = {
      Original: new Track(this.scene, this.mixer, "Original", null, redraw),
      ...Object.fromEntries(this.mixer.parts.map((name) =>
          [name, new Track(this.scene, this.mixer, name, "Gain of " + name, redraw)])),
      Mix: new Track(this.scene, this.mixer, "Mix", "Master gain", redraw),
    };
    for (const track of Object.values(this.tracks)) {
      track.setDecibels(this.scene.gains[track.name] ?? 0);
      parent.append(track.element);
    }
  }

  draw() {
    for (const [name, buffer] of Object.entries(this.mixer.buffers))
      Spectrogram.draw(this.tracks[name].canvas, buffer.getChannelData(0), buffer.sampleRate);
    this.drawMix();
  }

  drawMix() {
    const factors = Object.fromEntries(Object.values(this.tracks).filter((track) => track.slider)
                                           .map((track) => [track.name, track.factor]));
    Spectrogram.draw(this.tracks.Mix.canvas, this.mixer.mixed(factors), this.scene.rate);
  }

  reset() {
    for (const track of Object.values(this.tracks)) track.setDecibels(0);
    this.drawMix();
  }

  toggle() {
    if (this.mixer.isPlaying) {
      this.mixer.pause();
    } else {
      for (const other of players) other.mixer.pause();
      this.mixer.play();
    }
    for (const player of players) player.playButton.textContent = player.mixer.isPlaying ? "Pause" : "Play";
  }

  update() {
    const position = Math.max(0, this.mixer.position);
    if (document.activeElement !== this.seekBar) this.seekBar.value = position;
    this.element.querySelector(".seek output").textContent = position.toFixed(1) + " s";
    for (const track of Object.values(this.tracks))
      track.meter.value = this.mixer.isPlaying ? Math.max(-60, this.mixer.level(track.name)) : -60;
  }
}

async function build() {
  for (const scene of window.scenes) {
    const names = Object.keys(scene.audio);
    const buffers = await Promise.all(names.map((name) => decode(scene.audio[name], contextOf(scene.rate))));
    const player = new Player(scene, Object.fromEntries(names.map((name, i) => [name, buffers[i]])));
    players.push(player);
    document.getElementById("scenes").append(player.element);
    player.draw();
  }
  const update = () => {
    players.forEach((player) => player.update());
    requestAnimationFrame(update);
  };
  update();
  document.body.dataset.ready = "true";
}

build();
