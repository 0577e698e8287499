#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/AudioBuffer.h"
#include "vexcore/MemoryRecycler.h"

namespace {

using dsp::AudioBuffer;
using dsp::AudioBufferChannel;
using dsp::AudioBufferShell;
using dsp::AudioSubBuffer;
using Mask = AudioBuffer::ChannelMask;
using Vec = std::vector<float>;

void FillValue(AudioBuffer& b, std::uint32_t ch, float value) { std::fill(b[ch], b[ch] + b.GetBufferSize(), value); }
Vec Read(const AudioBuffer& b, std::uint32_t ch, std::size_t n, std::size_t from = 0) {
  return Vec(b[ch] + from, b[ch] + from + n);
}
void FillNoise(AudioBuffer& b, std::uint32_t seed) {
  for (std::uint32_t ch = 0; ch < b.GetNumChannels(); ++ch) {
    const Vec v = vextest::Noise(b.GetBufferSize(), seed + ch);
    std::copy(v.begin(), v.end(), b[ch]);
  }
}

// Sees the held block, to check the layout against it.
class ExposedBuffer : public AudioBuffer {
 public:
  std::uintptr_t BlockStart() const { return reinterpret_cast<std::uintptr_t>(storage_.Get()); }
  std::uintptr_t BlockEnd() const { return BlockStart() + storage_.GetByteCount(); }
};

// Every channel starts on a cache line, after the pointer table, and its
// capacity plus 4 spare floats lies inside the block without touching the
// next channel.
void ExpectLayoutInsideTheBlock(const ExposedBuffer& b) {
  const std::uintptr_t table = reinterpret_cast<std::uintptr_t>(b.GetFloatBuffers());
  EXPECT_EQ(table, b.BlockStart());
  std::uintptr_t previousEnd = table + b.GetNumChannels() * sizeof(float*);
  for (std::uint32_t ch = 0; ch < b.GetNumChannels(); ++ch) {
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(b[ch]);
    EXPECT_EQ(start % 64, 0u) << ch;
    EXPECT_GE(start, previousEnd) << ch;
    previousEnd = start + (b.GetBufferSize() + 4) * sizeof(float);
    EXPECT_LE(previousEnd, b.BlockEnd()) << ch;
  }
}

TEST(AudioBufferStorage, InitReusesTheBlockWhileItFits) {
  ExposedBuffer b;
  b.Init(2, 887);
  float** table = b.GetFloatBuffers();
  ExpectLayoutInsideTheBlock(b);

  // One channel in a block that held two of 887 gets at least twice the room.
  b.Init(1, 960);
  EXPECT_EQ(b.GetFloatBuffers(), table);
  EXPECT_GE(b.GetBufferSize(), 2u * 887u);
  EXPECT_EQ(b.GetUseSize(), 960u);
  ExpectLayoutInsideTheBlock(b);

  b.SetChannelZero(0);
  b.Init(2, 887);
  EXPECT_EQ(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 887u);
  EXPECT_TRUE(b.IsChannelZero(0));  // flags below the channel count survive
  b.Init(2, 100);                   // same channel count: capacity never shrinks
  EXPECT_EQ(b.GetBufferSize(), 887u);
  EXPECT_NO_ALLOCATION(b.Init(1, 1500));

  b.Init(3, 5000);
  EXPECT_NE(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 5000u);
  ExpectLayoutInsideTheBlock(b);
}

// Beyond the recycler's largest class (1 GiB; an hour of stereo at 48 kHz is
// more) a buffer is still whole. 2^28 samples of one channel need just over
// 1 GiB: the smallest such buffer, as AddressSanitizer makes every gigabyte
// cost about a second.
TEST(AudioBufferStorage, BuffersAboveTheLargestRecyclerClassWork) {
  const std::uint32_t size = 1u << 28;
  const std::size_t cachedBefore = vexcore::utility::MemoryRecycler::GetStats().cachedBlocks;
  {
    AudioBuffer b(1, size);
    ASSERT_EQ(b.GetNumChannels(), 1u);
    EXPECT_EQ(b.GetBufferSize(), size);
    b[0][size - 1] = 0.5f;
    b[0][0] = 0.25f;
    EXPECT_EQ(b[0][size - 1], 0.5f);
  }
  EXPECT_EQ(vexcore::utility::MemoryRecycler::GetStats().cachedBlocks, cachedBefore);  // not kept idle
}

// A refused allocation leaves an empty buffer; a refused growth keeps the
// samples it had.
TEST(AudioBufferStorage, RefusedAllocationsLeaveAnEmptyOrUnchangedBuffer) {
  using vexcore::utility::MemoryRecycler;
  AudioBuffer overflowing(1u << 16, 1u << 31);  // 2^49 bytes: no heap is asked
  EXPECT_EQ(overflowing.GetNumChannels(), 0u);
  EXPECT_EQ(overflowing.GetBufferSize(), 0u);
  EXPECT_EQ(overflowing.GetFloatBuffers(), nullptr);
  AudioBuffer wrapping(0xFFFFFFFFu, 0xFFFFFFFFu);  // the byte count does not fit 64 bits
  EXPECT_EQ(wrapping.GetNumChannels(), 0u);

  MemoryRecycler::Purge();
  const std::size_t ceiling = MemoryRecycler::GetMaxHeapBlock();
  AudioBuffer kept(2, 100);
  FillNoise(kept, 5);
  kept.SetChannelZero(1);
  const Vec left = Read(kept, 0, 100);
  MemoryRecycler::SetMaxHeapBlock(4096);
  AudioBuffer refused(2, 1u << 20);
  kept.SetUseSize(1u << 20);
  refused.Init(2, 1u << 20);
  MemoryRecycler::SetMaxHeapBlock(ceiling);
  EXPECT_EQ(refused.GetNumChannels(), 0u);
  EXPECT_EQ(refused.GetUseSize(), 0u);
  EXPECT_EQ(refused.GetFloatBuffers(), nullptr);
  refused.ZeroBuffers();  // harmless on an empty buffer
  refused.Reverse();
  ASSERT_EQ(kept.GetNumChannels(), 2u);
  EXPECT_EQ(kept.GetUseSize(), 100u);
  EXPECT_EQ(Read(kept, 0, 100), left);
  EXPECT_EQ(kept.GetChannelZeroMask() & Mask::LowBits(2), Mask(0b10));
}

TEST(AudioBufferStorage, SetUseSizeGrowthKeepsSamplesAndFlags) {
  AudioBuffer b(2, 100);
  FillNoise(b, 1);
  b.SetChannelZero(1);
  const Vec left = Read(b, 0, 100);
  float** table = b.GetFloatBuffers();
  b.SetUseSize(5000);  // grows: reallocates
  EXPECT_NE(b.GetFloatBuffers(), table);
  EXPECT_EQ(Read(b, 0, 100), left);
  EXPECT_EQ(b.GetChannelZeroMask(), ~Mask::LowBits(2) | Mask(0b10));

  b.SetUseSize(0);  // from use size 0 the call only caps at the capacity
  b.SetUseSize(20000);
  EXPECT_EQ(b.GetUseSize(), 5000u);
  EXPECT_EQ(b.GetBufferSize(), 5000u);
}

class AudioBufferOps : public ::testing::Test {
 protected:
  void SetUp() override {
    FillNoise(src_, 10);
    for (std::uint32_t ch = 0; ch < 2; ++ch) FillValue(dst_, ch, 9.0f);
    a_ = Read(src_, 0, 64);
    b_ = Read(src_, 1, 64);
  }
  AudioBuffer src_{2, 64};
  AudioBuffer dst_{2, 64};
  Vec a_, b_;
  const Vec zeros_ = Vec(64, 0.0f);
};

TEST_F(AudioBufferOps, CopiesFollowTheSourceFlags) {
  src_.SetChannelZero(1);
  dst_.CopyFrom(src_);
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_EQ(Read(dst_, 1, 64), zeros_);
  EXPECT_EQ(dst_.GetChannelZeroMask() & Mask::LowBits(2), Mask(0b10));

  // A shorter source copies its use size only; a partial silence leaves the flag clear.
  for (std::uint32_t ch = 0; ch < 2; ++ch) FillValue(dst_, ch, 9.0f);
  dst_.ClearZero();
  src_.SetUseSize(40);
  dst_.CopyFrom(src_);
  EXPECT_EQ(Read(dst_, 0, 40), Vec(a_.begin(), a_.begin() + 40));
  EXPECT_EQ(Read(dst_, 1, 40), Vec(40, 0.0f));
  EXPECT_EQ(dst_[1][40], 9.0f);
  EXPECT_FALSE(dst_.IsChannelZero(1));
  src_.SetUseSize(64);

  AudioBuffer silent(2, 64);
  silent.Zero();
  dst_.CopyFrom(silent, 10);  // counted: no all-silent shortcut
  EXPECT_FALSE(dst_.IsChannelZero(0));
  dst_.CopyFrom(silent);  // the uncounted form flags everything
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());
  EXPECT_EQ(Read(dst_, 0, 64), zeros_);

  AudioBuffer three(3, 64);
  FillNoise(three, 3);
  src_.ClearZero();
  three.CopyCertainChannelsFrom(src_, 1000, Mask(0b01));  // capped at the use size
  EXPECT_EQ(Read(three, 0, 64), a_);
  for (std::uint32_t ch : {1u, 2u}) EXPECT_EQ(Read(three, ch, 64), zeros_);  // excluded and missing: silenced
  EXPECT_EQ(three.GetChannelZeroMask(), ~Mask::LowBits(1));

  src_.SetChannelZero(0);
  dst_.CopyFromScale(src_, 2.0f);
  EXPECT_TRUE(dst_.IsChannelZero(0));
  EXPECT_FALSE(dst_.IsChannelZero(1));
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[1][i], 2.0f * b_[i]);
}

TEST_F(AudioBufferOps, MixFlagOutcomes) {
  dst_.Zero();
  src_.SetChannelZero(1);
  dst_.Mix(src_);  // into silence: a copy
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_TRUE(dst_.IsChannelZero(1));
  src_.ClearZero();

  // A flagged destination channel is overwritten, not added to its stale samples.
  FillValue(dst_, 1, 9.0f);
  dst_.Mix(src_);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[0][i], a_[i] + a_[i]);
  EXPECT_EQ(Read(dst_, 1, 64), b_);
  EXPECT_FALSE(dst_.IsChannelZero(1));

  // Flagged source channels leave the destination alone.
  const Vec before = Read(dst_, 0, 64);
  src_.SetChannelZero(0);
  dst_.Mix(src_);
  EXPECT_EQ(Read(dst_, 0, 64), before);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[1][i], b_[i] + b_[i]);
}

// Literal expectations: reversal keeps a middle sample in place and leaves
// flagged channels alone; ZeroBuffers ignores flags but not the use size.
TEST(AudioBufferSamples, ReverseZeroBuffersAndCopyChannelResults) {
  AudioBuffer b(3, 8);
  for (std::uint32_t ch = 0; ch < 3; ++ch)
    for (std::uint32_t i = 0; i < 8; ++i) b[ch][i] = static_cast<float>(10 * ch + i);
  b.SetUseSize(7);
  b.SetChannelZero(2);
  b.Reverse();
  EXPECT_EQ(Read(b, 0, 8), (Vec{6, 5, 4, 3, 2, 1, 0, 7}));
  EXPECT_EQ(Read(b, 1, 8), (Vec{16, 15, 14, 13, 12, 11, 10, 17}));
  EXPECT_EQ(Read(b, 2, 8), (Vec{20, 21, 22, 23, 24, 25, 26, 27}));
  b.SetUseSize(6);
  b.Reverse();
  EXPECT_EQ(Read(b, 0, 8), (Vec{1, 2, 3, 4, 5, 6, 0, 7}));

  b.CopyChannel(1, 0);  // within the buffer: the use size only
  EXPECT_EQ(Read(b, 0, 8), (Vec{11, 12, 13, 14, 15, 16, 0, 7}));
  b.CopyChannel(0, 2);  // into a flagged channel: copied and unflagged
  EXPECT_EQ(Read(b, 2, 6), Read(b, 0, 6));
  EXPECT_FALSE(b.IsChannelZero(2));
  AudioBuffer other(2, 8);
  for (std::uint32_t i = 0; i < 8; ++i) other[1][i] = -static_cast<float>(i);
  b.CopyChannel(other, 1, 1);
  EXPECT_EQ(Read(b, 1, 8), (Vec{0, -1, -2, -3, -4, -5, 10, 17}));
  b.CopyChannel(other, 5, 1);  // no such source channel: silenced and flagged
  EXPECT_EQ(Read(b, 1, 8), (Vec{0, 0, 0, 0, 0, 0, 10, 17}));
  EXPECT_TRUE(b.IsChannelZero(1));
  const Vec before = Read(b, 0, 8);
  b.CopyChannel(1, 3);  // no such destination: nothing happens
  EXPECT_EQ(Read(b, 0, 8), before);

  b.SetChannelZero(0);
  const Mask mask = b.GetChannelZeroMask();
  b.ZeroBuffers();
  for (std::uint32_t ch = 0; ch < 3; ++ch) EXPECT_EQ(Read(b, ch, 6), Vec(6, 0.0f)) << ch;
  EXPECT_EQ(b[0][6], 0.0f);  // beyond the use size: untouched (it was 0)
  EXPECT_EQ(b[0][7], 7.0f);
  EXPECT_EQ(b[2][7], 27.0f);
  EXPECT_EQ(b.GetChannelZeroMask(), mask);
}

TEST_F(AudioBufferOps, PerBlockOperationsNeverAllocate) {
  AudioSubBuffer sub;
  sub.Init(2);
  AudioBufferChannel view;
  AudioBuffer mono(1, 64);
  EXPECT_NO_ALLOCATION({
    dst_.CopyFrom(src_);
    dst_.CopyFrom(src_, 0u, 10u);
    dst_.CopyCertainChannelsFrom(src_, 64, Mask(0b01));
    dst_.CopyFromScale(src_, 2.0f);
    dst_.CopyChannel(src_, 0, 1);
    dst_.Mix(src_);
    dst_ *= 0.5f;
    dst_.Reverse();
    dst_.ZeroChannel(0, 10);
    sub.Assign(dst_, 16);
    sub.SetUseSize(8);
    sub.ShiftOffset(8);
    sub.ClearChannelZero(0);
    view.Assign(dst_, 1);
    view.CopyFrom(mono);
    dst_.Zero();
    dst_.Init(2, 64);
  });
}

TEST(AudioBufferChannelView, WritesAndFlagsGoToTheParentChannel) {
  AudioBuffer parent(2, 64), mono(1, 64);
  FillNoise(mono, 61);
  parent.Zero();
  AudioBufferChannel view;
  view.Assign(parent, 1);
  view.CopyFrom(mono);
  EXPECT_EQ(Read(parent, 1, 64), Read(mono, 0, 64));
  EXPECT_EQ(parent.GetChannelZeroMask() & Mask::LowBits(2), Mask(0b01));
  view.Zero();
  EXPECT_TRUE(parent.IsChannelZero(1));
}

TEST(AudioSubBufferView, SizesNestingAndFlagOverrides) {
  AudioBuffer parent(2, 1024);
  FillNoise(parent, 70);
  const Vec left = Read(parent, 0, 1024);
  parent.SetChannelZero(1);
  AudioSubBuffer sub, half, quarter;
  half.Init(2);
  quarter.Init(2);
  half.Assign(parent, 512);
  quarter.Assign(half, 256);
  EXPECT_EQ(quarter.GetBufferSize(), 256u);
  for (std::uint32_t ch = 0; ch < 2; ++ch) EXPECT_EQ(Read(quarter, ch, 256), Read(parent, ch, 256, 768));
  EXPECT_EQ(quarter.GetChannelZeroMask(), parent.GetChannelZeroMask());

  parent.ClearZero();
  sub.Init(2);
  sub.Assign(parent, 0);  // equal use sizes: flags reach the parent
  sub.Zero();             // flags only
  EXPECT_TRUE(parent.IsZero());
  EXPECT_EQ(Read(parent, 0, 1024), left);
  parent.ClearZero();
  sub.Assign(parent, 100);  // different use sizes: own flags only
  sub.SetChannelZero(0);
  EXPECT_FALSE(parent.IsChannelZero(0));
  sub.ClearChannelsZero(Mask(0b01));  // names the channels that carry sound
  EXPECT_FALSE(sub.IsChannelZero(0));
  EXPECT_TRUE(sub.IsChannelZero(1));
}

TEST(AudioSubBufferView, ClearingAFlagZeroesTheParentOutsideTheView) {
  AudioBuffer parent(1, 1024);
  FillValue(parent, 0, 7.0f);  // stale samples under a set flag
  parent.SetChannelZero(0);
  AudioSubBuffer half, inner;
  half.Init(1);
  inner.Init(1);
  half.Assign(parent, 512);
  inner.Assign(half, 128);
  inner.SetUseSize(64);
  std::fill(inner[0], inner[0] + 64, 0.5f);
  inner.ClearChannelZero(0);  // two levels deep: the grandparent is cleaned too
  for (std::size_t i = 0; i < 1024; ++i) ASSERT_EQ(parent[0][i], (i >= 640 && i < 704) ? 0.5f : 0.0f) << i;
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_FALSE(half.IsChannelZero(0));
}

TEST(AudioSubBufferView, ShiftOffsetWalksAcrossTheParent) {
  for (std::uint32_t block : {128u, 7u}) {
    AudioBuffer parent(1, 1000);
    FillNoise(parent, 90);
    const Vec orig = Read(parent, 0, 1000);
    AudioSubBuffer sub;
    sub.Init(1);
    sub.Assign(parent, 0);
    float gain = 1.0f;
    for (std::uint32_t offset = 0; sub.SetUseSize(block), sub.GetBufferSize() > 0; offset += block, gain += 1.0f) {
      ASSERT_EQ(sub[0], parent[0] + offset);
      ASSERT_EQ(sub.GetUseSize(), std::min(block, 1000 - offset));
      sub *= gain;
      sub.ShiftOffset(block);
    }
    for (std::uint32_t i = 0; i < 1000; ++i) ASSERT_EQ(parent[0][i], orig[i] * static_cast<float>(i / block + 1)) << i;
  }
}

// A null channel pointer from the host leaves the shell holding nothing, so
// no operation reaches through it.
TEST(AudioBufferShellView, NullChannelPointerGivesAnEmptyShell) {
  std::vector<float> left(64, 0.5f), right(64, -0.5f);
  float* ptrs[2] = {left.data(), nullptr};
  AudioBufferShell shell;
  shell.Init(2);
  shell.Assign(ptrs, 64);
  EXPECT_EQ(shell.GetUseSize(), 0u);
  EXPECT_EQ(shell.GetBufferSize(), 0u);
  EXPECT_TRUE(shell.IsZero());
  EXPECT_EQ(shell[0], nullptr);
  EXPECT_EQ(shell[1], nullptr);
  AudioBuffer loud(2, 64);
  FillValue(loud, 0, 1.0f);
  FillValue(loud, 1, 1.0f);
  shell.ClearZero();
  shell.CopyFrom(loud);
  shell.Mix(loud);
  shell *= 2.0f;
  shell.Reverse();
  shell.ZeroBuffers();
  shell.CopyChannel(loud, 0, 1);
  shell.Zero();
  EXPECT_EQ(left, Vec(64, 0.5f));
  loud.CopyFrom(shell);  // an empty source silences
  EXPECT_TRUE(loud.IsZero());
  EXPECT_EQ(Read(loud, 0, 64), Vec(64, 0.0f));
  shell.Assign(nullptr, 64);
  EXPECT_EQ(shell.GetUseSize(), 0u);

  ptrs[1] = right.data();  // a complete table works again
  shell.Assign(ptrs, 64);
  EXPECT_EQ(shell.GetUseSize(), 64u);
  EXPECT_FALSE(shell.IsChannelZero(1));
  shell *= 2.0f;
  EXPECT_EQ(right[63], -1.0f);
}

// A sub-buffer placed past its parent's use size has a wrapped use size; no
// operation through it may write outside the parent's samples.
TEST(AudioSubBufferView, WrappedUseSizeNeverWritesPastTheParent) {
  std::vector<float> host(1000, 7.0f);
  for (std::size_t i = 0; i < 600; ++i) host[i] = static_cast<float>(i);
  float* ptrs[1] = {host.data()};
  AudioBufferShell shell;
  shell.Init(1);
  shell.Assign(ptrs, 600);
  shell.SetUseSize(300);
  AudioSubBuffer sub;
  sub.Init(1);
  sub.Assign(shell, 500);
  EXPECT_EQ(sub.GetBufferSize(), 100u);
  EXPECT_EQ(sub.GetUseSize(), static_cast<std::uint32_t>(300u - 500u));  // wraps on purpose

  AudioBuffer loud(1, 1000);
  FillValue(loud, 0, 3.0f);
  AudioBuffer& base = sub;
  base.Zero();
  EXPECT_EQ(host[599], 0.0f);
  sub.ClearZero();
  base.CopyFrom(loud);
  EXPECT_EQ(host[500], 3.0f);
  base.Mix(loud);
  base *= 2.0f;
  EXPECT_EQ(host[599], 12.0f);
  base.Reverse();
  base.ZeroChannel(0, 5000);
  base.CopyChannel(loud, 0, 0);
  base.ZeroBuffers();
  for (std::size_t i = 0; i < 500; ++i) ASSERT_EQ(host[i], static_cast<float>(i));
  for (std::size_t i = 600; i < 1000; ++i) ASSERT_EQ(host[i], 7.0f) << i;
}

}  // namespace
