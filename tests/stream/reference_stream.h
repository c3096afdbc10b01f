#pragma once

// A plain model of a stream whose model passes windows through: frames in lists, double precision,
// one hop at a time.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <deque>
#include <limits>
#include <numbers>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

struct StreamSizes {
  std::uint64_t hop = 4;
  std::uint64_t sequence = 2;
  std::uint64_t channels = 1;
  std::uint64_t lookahead = 0;
  std::uint64_t block = 4;
  bool isSpectral = false;

  std::uint64_t Capacity() const { return hop * sequence; }
  std::string Text() const {
    return "hop " + std::to_string(hop) + ", sequence " + std::to_string(sequence) + ", channels " +
           std::to_string(channels) + ", lookahead " + std::to_string(lookahead) + ", block " +
           std::to_string(block) + (isSpectral ? ", spectra" : ", samples");
  }
};

using Frame = std::vector<double>;  ///< one value per channel
using Frames = std::vector<Frame>;

class ReferenceStream {
public:
  explicit ReferenceStream(const StreamSizes& sizes) : sizes(sizes), read(Prefill()) { Clear(); }

  /// Gain of each channel from now on, as of the next evaluation.
  void SetFactors(std::vector<double> perChannel) { factors = std::move(perChannel); }
  /// From now on an evaluation fails that is given a sample of this level or above.
  void FailFrom(double level) { failLevel = level; }
  void Resize(std::uint64_t sequence, std::uint64_t channels) {
    sizes.sequence = sequence;
    sizes.channels = channels;
    Clear();
  }

  /// Throws std::runtime_error where an evaluation is to fail.
  Frames Process(const Frames& block, bool continues) {
    if (!continues) {
      read = Prefill();
      write = 0;
    }
    read = std::min(read, sizes.Capacity());
    write = std::min(write, sizes.Capacity());
    const std::size_t n = std::min<std::size_t>(block.size(), sizes.block);
    Frames result;
    std::size_t put = 0;
    while (true) {
      while (result.size() < n && read < sizes.Capacity())
        result.push_back(outputRing[read++]);
      while (put < n && write < sizes.Capacity())
        inputRing[write++] = block[put++];
      if (result.size() == n && put == n) return result;
      Evaluate();
      read = write = 0;
    }
  }

private:
  struct Window {
    Frames first, second;  ///< a hop each
  };

  std::uint64_t Prefill() const {
    const bool divides = sizes.Capacity() % sizes.block == 0;
    return divides && sizes.Capacity() > sizes.block ? sizes.block : 0;
  }
  Frames Silence(std::uint64_t frames) const { return Frames(frames, Frame(sizes.channels, 0.0)); }

  void Clear() {
    inputRing = outputRing = Silence(sizes.Capacity());
    const Window silent = {Silence(sizes.hop), Silence(sizes.hop)};
    tail = silent.first;
    last = silent;
    held.assign(sizes.lookahead, silent);
    factors.assign(sizes.channels, 1.0);
  }

  double Hann(std::size_t i) const {
    return 0.5 - 0.5 * std::cos(std::numbers::pi * static_cast<double>(i) /
                                static_cast<double>(sizes.hop));
  }

  void Evaluate() {
    std::vector<Frames> hops = {tail};
    for (std::uint64_t s = 0; s < sizes.sequence; ++s)
      hops.emplace_back(inputRing.begin() + static_cast<std::ptrdiff_t>(s * sizes.hop),
                        inputRing.begin() + static_cast<std::ptrdiff_t>((s + 1) * sizes.hop));
    tail = hops.back();
    for (const Frames& frames : hops)
      for (const Frame& frame : frames)
        if (*std::max_element(frame.begin(), frame.end()) >= failLevel)
          throw std::runtime_error("evaluation");
    for (std::uint64_t s = 0; s < sizes.sequence; ++s) {
      held.push_back({hops[s], hops[s + 1]});
      Window window = held.front();
      held.pop_front();
      for (Frames* half : {&window.first, &window.second})
        for (Frame& frame : *half)
          for (std::uint64_t c = 0; c < sizes.channels; ++c)
            frame[c] *= factors[c];
      for (std::uint64_t i = 0; i < sizes.hop; ++i)
        for (std::uint64_t c = 0; c < sizes.channels; ++c)
          outputRing[s * sizes.hop + i][c] =
              Hann(sizes.hop + i) * last.second[i][c] + Hann(i) * window.first[i][c];
      last = window;
    }
  }

  StreamSizes sizes;
  std::uint64_t read;
  std::uint64_t write = 0;
  Frames inputRing, outputRing;
  Frames tail;              ///< last hop that an evaluation was given
  std::deque<Window> held;  ///< windows given and not yet out, as many as the lookahead
  Window last;              ///< the last window that came out
  std::vector<double> factors;
  double failLevel = std::numeric_limits<double>::infinity();
};

}  // namespace TestSupport
