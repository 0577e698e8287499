#pragma once

// A scratch folder per test and a way to run the built vexdsp binary in it,
// for the command-line tests (their targets define VEXDSP_BINARY). Standard
// output and error are captured beside the folder, so it holds only what
// vexdsp left there.

#include <gtest/gtest.h>
#include <sndfile.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace vextest {

inline std::string ReadText(const std::filesystem::path& path) {
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

class CliFixture : public ::testing::Test {
 protected:
  struct RunResult {
    int exitCode = -1;
    std::string out, err;
  };

  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "vexdsp-cli-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    std::filesystem::create_directories(dir_ = (root_ = pattern) / "work");
  }
  void TearDown() override { std::filesystem::remove_all(root_); }

  std::string Path(const std::string& name) const { return (dir_ / name).string(); }

  /// Runs a shell command line in the scratch folder, stdin from /dev/null.
  RunResult Shell(const std::string& command) const {
    const std::filesystem::path out = root_ / "stdout.txt", err = root_ / "stderr.txt";
    const int status = std::system(
        ("cd '" + dir_.string() + "' && " + command + " >'" + out.string() + "' 2>'" + err.string() + "' </dev/null")
            .c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadText(out), ReadText(err)};
  }
  /// vexdsp with `args`: shell-safe words separated by spaces.
  RunResult Run(const std::string& args) const { return Shell("'" VEXDSP_BINARY "' " + args); }

  /// Interleaved float samples as a sound file (float WAV by default).
  void WriteInterleaved(const std::string& name, const std::vector<float>& interleaved, int channels, int rate,
                        int format = SF_FORMAT_WAV | SF_FORMAT_FLOAT) const {
    SF_INFO info{0, rate, channels, format, 0, 0};
    SNDFILE* file = sf_open(Path(name).c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    const auto frames = static_cast<sf_count_t>(interleaved.size() / static_cast<std::size_t>(channels));
    ASSERT_EQ(sf_writef_float(file, interleaved.data(), frames), frames);
    sf_close(file);
  }

  std::filesystem::path root_, dir_;
};

}  // namespace vextest
