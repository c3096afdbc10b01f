#pragma once

#include <cstddef>

/// `streams` streams of the separator at once, each for `seconds` of audio and longer: pieces of
/// ten seconds, for each a new stream in place of one that ends, all at phases of their own. Each
/// has to return the bits that a stream alone returns, and the process may not grow. Prints a
/// table. Returns the exit status.
int SoakManyStreams(std::size_t streams, double seconds);
