#pragma once

// A plain model of a stream: each channel in arrays of its own, double precision, the definitions
// of windows and overlap-add.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numbers>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

/// What a model declares of its windows (WindowShape), and what that means.
struct DeclaredWindow {
  const char* name;  ///< null: its numbers are listed
  double (*analysis)(double i, double N);
  std::uint64_t length = 0;                           ///< N, in the middle; 0: the whole window
  double (*synthesis)(double i, double N) = nullptr;  ///< listed too; null: the library's

  /// Sample n of a window of W, by the definition.
  double Before(std::uint64_t n, std::uint64_t W) const { return At(analysis, n, W); }
  double After(std::uint64_t n, std::uint64_t W) const {
    if (synthesis) return At(synthesis, n, W);
    const double here = Before(n, W), there = Before((n + W / 2) % W, W);
    return here / (here * here + there * there);
  }
  std::string Json(std::uint64_t W) const {
    if (name) {
      std::string quoted = '"' + std::string(name) + '"';
      if (length == 0) return quoted;
      return "{\"length\": " + std::to_string(length) + ", \"shape\": " + quoted + "}";
    }
    return "{\"analysis\": " + List(analysis, W) +
           (synthesis ? ", \"synthesis\": " + List(synthesis, W) + "}" : "}");
  }

private:
  double At(double (*window)(double, double), std::uint64_t n, std::uint64_t W) const {
    const std::uint64_t N = length ? length : W, from = (W - N) / 2;
    return n < from || n >= from + N
               ? 0.0
               : window(static_cast<double>(n - from), static_cast<double>(N));
  }
  std::string List(double (*window)(double, double), std::uint64_t W) const {
    std::ostringstream text;
    text.precision(17);
    const std::uint64_t N = length ? length : W;
    for (std::uint64_t i = 0; i < N; ++i)
      text << (i ? ", " : "[") << window(static_cast<double>(i), static_cast<double>(N));
    return text.str() + "]";
  }
};

inline double Hann(double i, double N) {
  return 0.5 - 0.5 * std::cos(2 * std::numbers::pi * i / N);
}
inline double Hamming(double i, double N) {
  return 0.08 + 0.92 * Hann(i, N);
}
inline double Rectangular(double, double) {
  return 1;
}
inline double RootHann(double i, double N) {
  return std::sqrt(Hann(i, N));
}
inline double Vorbis(double i, double N) {
  return std::sin(std::numbers::pi / 2 * Hann(i + 0.5, N));
}

inline double HannByHamming(double i, double N) {
  return Hann(i, N) / Hamming(i, N);
}

struct StreamSizes {
  std::uint64_t hop = 4;
  std::uint64_t sequence = 2;
  std::uint64_t channels = 1;
  std::uint64_t lookahead = 0;
  std::uint64_t block = 4;
  bool isSpectral = false;
  std::optional<DeclaredWindow> window = {};

  std::uint64_t Capacity() const { return hop * sequence; }
  std::string Text() const {
    return "hop " + std::to_string(hop) + ", sequence " + std::to_string(sequence) + ", channels " +
           std::to_string(channels) + ", lookahead " + std::to_string(lookahead) + ", block " +
           std::to_string(block) + (isSpectral ? ", spectra" : ", samples") +
           (window ? std::string(", ") + (window->name ? window->name : "listed window") : "");
  }
};

using Samples = std::vector<double>;
using Planar = std::vector<Samples>;  ///< by channel

/// What an evaluation makes of one channel's windows, the lookahead's before the new ones: the
/// first `sequence` windows of the result are what comes out. One that throws std::runtime_error
/// is an evaluation that fails when it has taken its windows.
using WindowRule = std::function<Planar(std::size_t channel, const Planar& windows)>;

class ReferenceStream {
public:
  explicit ReferenceStream(const StreamSizes& sizes) : sizes(sizes), read(Prefill()) { Clear(); }

  /// As of the next evaluation. At first windows pass through.
  void SetRule(WindowRule newRule) { rule = std::move(newRule); }
  /// From now on an evaluation fails that is given a sample of this level or above.
  void FailFrom(double level) { failLevel = level; }
  void Resize(std::uint64_t sequence, std::uint64_t channels) {
    sizes.sequence = sequence;
    sizes.channels = channels;
    Clear();
  }

  /// Throws std::runtime_error where an evaluation is to fail.
  Planar Process(const Planar& block, bool continues) {
    if (!continues) {
      read = Prefill();
      write = 0;
    }
    read = std::min(read, sizes.Capacity());
    write = std::min(write, sizes.Capacity());
    const std::uint64_t n = std::min<std::uint64_t>(block[0].size(), sizes.block);
    Planar result(sizes.channels, Samples(n));
    std::uint64_t taken = 0, put = 0;
    while (true) {
      for (; taken < n && read < sizes.Capacity(); ++taken, ++read)
        for (std::uint64_t c = 0; c < sizes.channels; ++c)
          result[c][taken] = channels[c].outputRing[read];
      for (; put < n && write < sizes.Capacity(); ++put, ++write)
        for (std::uint64_t c = 0; c < sizes.channels; ++c)
          channels[c].inputRing[write] = block[c][put];
      if (taken == n && put == n) return result;
      Evaluate();
      read = write = 0;
    }
  }

private:
  struct Channel {
    Samples inputRing, outputRing;
    Samples tail;     ///< last hop that an evaluation was given
    Samples overlap;  ///< second half of the last window that came out
    Planar held;      ///< windows given and not yet out, as many as the lookahead
  };

  std::uint64_t Prefill() const {
    const bool divides = sizes.Capacity() % sizes.block == 0;
    return divides && sizes.Capacity() > sizes.block ? sizes.block : 0;
  }

  void Clear() {
    const Samples ring(sizes.Capacity()), hop(sizes.hop), window(2 * sizes.hop);
    channels.assign(sizes.channels, {ring, ring, hop, hop, Planar(sizes.lookahead, window)});
  }

  /// Where the model declares no window: the root of the Hann window on either side of a model on
  /// spectra, the Hann window behind one on samples.
  double Before(std::uint64_t n) const {
    const std::uint64_t W = 2 * sizes.hop;
    if (sizes.window) return sizes.window->Before(n, W);
    return sizes.isSpectral ? RootHann(static_cast<double>(n), static_cast<double>(W)) : 1.0;
  }
  double After(std::uint64_t n) const {
    const std::uint64_t W = 2 * sizes.hop;
    if (sizes.window) return sizes.window->After(n, W);
    return (sizes.isSpectral ? RootHann : Hann)(static_cast<double>(n), static_cast<double>(W));
  }

  void Evaluate() {
    const auto hop = static_cast<std::ptrdiff_t>(sizes.hop);
    Planar given;  // by channel the last hop of the evaluation before, and the ring
    for (Channel& channel : channels) {
      Samples& frames = given.emplace_back(channel.tail);
      frames.insert(frames.end(), channel.inputRing.begin(), channel.inputRing.end());
      channel.tail.assign(frames.end() - hop, frames.end());
    }
    for (const Samples& frames : given)
      if (*std::max_element(frames.begin(), frames.end()) >= failLevel)
        throw std::runtime_error("evaluation");
    std::vector<Planar> windows;  // by channel those held, and the new ones
    for (std::size_t c = 0; c < channels.size(); ++c) {
      Planar& all = windows.emplace_back(std::move(channels[c].held));
      for (std::uint64_t s = 0; s < sizes.sequence; ++s) {
        Samples& window = all.emplace_back(2 * sizes.hop);
        for (std::uint64_t i = 0; i < window.size(); ++i)
          window[i] = given[c][s * sizes.hop + i] * Before(i);
      }
      channels[c].held.assign(all.end() - static_cast<std::ptrdiff_t>(sizes.lookahead), all.end());
    }
    for (std::size_t c = 0; c < channels.size(); ++c) {
      const Planar made = rule(c, windows[c]);
      Samples sum = channels[c].overlap;
      sum.resize(sizes.Capacity() + sizes.hop);
      for (std::uint64_t s = 0; s < sizes.sequence; ++s)
        for (std::uint64_t i = 0; i < 2 * sizes.hop; ++i)
          sum[s * sizes.hop + i] += After(i) * made[s][i];
      channels[c].outputRing.assign(sum.begin(), sum.end() - hop);
      channels[c].overlap.assign(sum.end() - hop, sum.end());
    }
  }

  StreamSizes sizes;
  std::uint64_t read;
  std::uint64_t write = 0;
  std::vector<Channel> channels;
  WindowRule rule = [](std::size_t, const Planar& windows) { return windows; };
  double failLevel = std::numeric_limits<double>::infinity();
};

}  // namespace TestSupport
