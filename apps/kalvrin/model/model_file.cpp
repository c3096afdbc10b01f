#include "model/model_file.h"

#include "audio/input_file.h"
#include "command_line/errors.h"

#include <cerrno>
#include <sys/stat.h>

namespace Orvik::Tesmo::Tool {

ModelFile ReadModelFile(const std::string& path) {
  const InputFile file(path);
  struct stat status {};
  if (fstat(file.Get(), &status) != 0)
    throw Refusal("cannot read " + file.Name() + ": " + SystemErrorText(errno));
  if (status.st_size == 0) throw Refusal(file.Name() + " is empty; a model was expected");
  if (status.st_size > 0xFFFFFFFFLL)
    throw Refusal(file.Name() + " is longer than 4 GiB, the most that a model can have");
  ModelFile model{file.Name(), std::vector<char>(static_cast<std::size_t>(status.st_size))};
  const long count = ReadFully(file.Get(), model.bytes.data(), model.bytes.size());
  if (count < 0) throw Refusal("cannot read " + file.Name() + ": " + SystemErrorText(errno));
  model.bytes.resize(static_cast<std::size_t>(count));
  return model;
}

}  // namespace Orvik::Tesmo::Tool
