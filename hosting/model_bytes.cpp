#include "hosting/model_bytes.h"

#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <sys/stat.h>
#include <tuple>

namespace Orvik::Tesmo::Hosting {
namespace {

using Identity = std::tuple<dev_t, ino_t, off_t, time_t, long>;

Identity IdentityOf(const std::filesystem::path& file) {
  struct stat status {};
  if (stat(file.c_str(), &status) != 0) throw std::runtime_error("cannot read " + file.string());
  if (!S_ISREG(status.st_mode)) throw std::runtime_error(file.string() + " is no file");
  if (status.st_size > 0xFFFFFFFFLL)
    throw std::runtime_error(file.string() + " is longer than 4 GiB, the most of a model");
  return {status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
          status.st_mtim.tv_nsec};
}

std::shared_ptr<const ModelBytes> ReadWhole(const std::filesystem::path& file, off_t size) {
  auto bytes = std::make_shared<ModelBytes>(static_cast<std::size_t>(size));
  std::ifstream in(file, std::ios::binary);
  if (!in.read(bytes->data(), static_cast<std::streamsize>(size)))
    throw std::runtime_error("cannot read " + file.string());
  return bytes;
}

}  // namespace

std::shared_ptr<const ModelBytes> LoadModelBytes(const std::filesystem::path& file) {
  static std::mutex mutex;
  static std::map<Identity, std::weak_ptr<const ModelBytes>> loaded;
  const Identity identity = IdentityOf(file);
  const std::lock_guard lock(mutex);
  if (auto bytes = loaded[identity].lock()) return bytes;
  std::erase_if(loaded, [](const auto& entry) { return entry.second.expired(); });
  auto bytes = ReadWhole(file, std::get<2>(identity));
  loaded[identity] = bytes;
  return bytes;
}

}  // namespace Orvik::Tesmo::Hosting
