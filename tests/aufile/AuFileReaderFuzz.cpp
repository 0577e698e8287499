// libFuzzer target for dsp::AuFileReader: any bytes as a file must give
// false or samples, never a crash, a hang or an out-of-bounds access.
//
// Not part of the CMake test glob (it needs clang's fuzzer runtime, Debian
// libclang-rt-14-dev). Build and run from the repository root:
//   clang++ -std=c++17 -g -O1 -fsanitize=fuzzer,address,undefined -I. -Iplatform \
//     tests/aufile/AuFileReaderFuzz.cpp vexaudiodsp/aufile/src/AuFile.cpp -o fuzz_aufile
//   ./fuzz_aufile -max_total_time=60 -max_len=4096

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "vexaudiodsp/aufile/AuFile.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string path = "/tmp/aufile-fuzz-" + std::to_string(::getpid()) + ".au";
  if (std::FILE* file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, file);
    std::fclose(file);
  } else {
    return 0;
  }
  dsp::AuFileReader reader;
  if (!reader.Initialize(path.c_str())) return 0;
  // A header may claim up to 2^32 - 1 channels; read a bounded number of
  // frames so the buffers stay small whatever it says.
  const std::size_t channels = reader.GetNumChannels();
  if (channels > 64) {
    std::vector<float> sink(256);
    reader.ReadInterleavedBufferFromFile(sink.data(), sink.size());
    return 0;
  }
  std::vector<std::vector<float>> buffers(channels, std::vector<float>(16));
  std::vector<float*> planar;
  for (auto& buffer : buffers) planar.push_back(buffer.data());
  while (reader.ReadPlanarBufferFromFile(planar.data(), 16)) {
  }
  std::vector<float> interleaved(channels * 4);
  reader.ReadInterleavedBufferFromFile(interleaved.data(), interleaved.size());
  return 0;
}
