#include "support/audio_models.h"

#include <fstream>

int main(int, char** arguments) {
  std::ofstream(arguments[1], std::ios::binary) << TestSupport::MakeAudioModel({.features = 32});
}
