#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "support/AllocationCounter.h"
#include "support/TestSignals.h"
#include "vexaudiodsp/buffering/AudioBuffer.h"

namespace {

using dsp::AudioBuffer;
using dsp::AudioBufferChannel;
using dsp::AudioBufferShell;
using dsp::AudioSubBuffer;
using Mask = AudioBuffer::ChannelMask;
using Vec = std::vector<float>;

class ProbeSubBuffer : public AudioSubBuffer {
 public:
  using AudioBuffer::GetAlignment;
  using AudioBuffer::IsAlignedUse;
};

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

TEST(AudioBufferStorage, InitReusesTheBlockWhileItFits) {
  AudioBuffer b;
  b.Init(2, 887);
  EXPECT_EQ(b.GetChannelZeroMask(), ~Mask::LowBits(2));
  float** table = b.GetFloatBuffers();

  b.Init(1, 960);  // 2 x (887 + 20) floats + 16 bytes = 7272 bytes hold (7272 - 8) / 4 - 20 = 1796 samples
  EXPECT_EQ(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 1796u);
  EXPECT_EQ(b.GetUseSize(), 960u);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b[0]) % 64, 0u);
  FillValue(b, 0, 3.0f);
  b.ZeroBuffers();
  EXPECT_EQ(Read(b, 0, 960), Vec(960, 0.0f));
  EXPECT_FALSE(b.IsChannelZero(0));  // ZeroBuffers leaves the mask alone

  b.SetChannelZero(0);
  b.Init(2, 887);
  EXPECT_EQ(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 887u);
  EXPECT_TRUE(b.IsChannelZero(0));  // flags below the channel count survive
  b.Init(2, 100);                   // same channel count: capacity never shrinks
  EXPECT_EQ(b.GetBufferSize(), 887u);
  EXPECT_EQ(b.GetUseSize(), 100u);
  EXPECT_NO_ALLOCATION(b.Init(2, 887));
  EXPECT_NO_ALLOCATION(b.Init(1, 1500));

  b.Init(3, 5000);
  EXPECT_NE(b.GetFloatBuffers(), table);
  EXPECT_EQ(b.GetBufferSize(), 5000u);

  AudioBuffer empty(2, 0);
  EXPECT_EQ(empty[0], nullptr);
}

TEST(AudioBufferStorage, CopyConstructorAndSetUseSize) {
  AudioBuffer b(2, 100);
  FillNoise(b, 1);
  b.SetChannelZero(1);
  b.SetUseSize(60);
  AudioBuffer copy(b);
  EXPECT_EQ(copy.GetChannelZeroMask(), b.GetChannelZeroMask());
  for (std::uint32_t ch = 0; ch < 2; ++ch) EXPECT_EQ(Read(copy, ch, 60), Read(b, ch, 60));  // flagged or not

  const Vec left = Read(b, 0, 100);
  float** table = b.GetFloatBuffers();
  EXPECT_NO_ALLOCATION(b.SetUseSize(100));
  b.SetUseSize(5000);  // grows: reallocates and keeps the samples and flags
  EXPECT_NE(b.GetFloatBuffers(), table);
  EXPECT_EQ(Read(b, 0, 100), left);
  EXPECT_FALSE(b.IsChannelZero(0));
  EXPECT_TRUE(b.IsChannelZero(1));

  b.SetUseSize(0);  // from use size 0 the call only caps at the capacity
  b.SetUseSize(20000);
  EXPECT_EQ(b.GetUseSize(), 5000u);
  EXPECT_EQ(b.GetBufferSize(), 5000u);
}

TEST(AudioBufferFlags, MaskRules) {
  AudioBuffer b(3, 16);
  b.SetChannelZero(0);
  b.SetChannelZero(2);
  EXPECT_FALSE(b.IsZero());
  b.SetChannelsZero(Mask(0b010));
  EXPECT_TRUE(b.IsZero());
  b.ClearZero();
  EXPECT_EQ(b.GetChannelZeroMask(), ~Mask::LowBits(3));  // bits above the channels stay
  b.ClearChannelsZero(Mask::AllOnes());
  b.SetChannelsZero(Mask(0b111));
  EXPECT_TRUE(b.IsZero());  // only the channels' own bits count
  b.ClearChannelZero(1);
  EXPECT_TRUE(b.IsChannelZero(64));  // reads bit ch mod 64
  EXPECT_FALSE(b.IsChannelZero(65));
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
  const Vec stale_ = Vec(64, 9.0f);
  const Vec zeros_ = Vec(64, 0.0f);
};

TEST_F(AudioBufferOps, CopiesFollowTheSourceFlags) {
  src_.SetChannelZero(1);
  EXPECT_NO_ALLOCATION(dst_.CopyFrom(src_));
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_FALSE(dst_.IsChannelZero(0));
  EXPECT_TRUE(dst_.IsChannelZero(1));
  EXPECT_EQ(Read(dst_, 1, 64), zeros_);

  // A shorter source copies its use size only; a partial silence leaves the flag clear.
  AudioBuffer part(2, 64);
  FillValue(part, 0, 9.0f);
  FillValue(part, 1, 9.0f);
  src_.SetUseSize(40);
  part.CopyFrom(src_);
  EXPECT_EQ(Read(part, 0, 40), Vec(a_.begin(), a_.begin() + 40));
  EXPECT_EQ(Read(part, 0, 24, 40), Vec(24, 9.0f));
  EXPECT_EQ(Read(part, 1, 40), Vec(40, 0.0f));
  EXPECT_EQ(part[1][40], 9.0f);
  EXPECT_FALSE(part.IsChannelZero(1));
  src_.SetUseSize(64);
  src_.ClearZero();

  // Counted forms: the first count of the three-argument form is unused, and
  // there is no all-silent shortcut, so a partial count leaves flags clear.
  for (std::uint32_t ch = 0; ch < 2; ++ch) FillValue(dst_, ch, 9.0f);
  dst_.CopyFrom(src_, 12345, 10);
  EXPECT_EQ(Read(dst_, 1, 10), Vec(b_.begin(), b_.begin() + 10));
  EXPECT_EQ(dst_[1][10], 9.0f);
  AudioBuffer silent(2, 64);
  silent.Zero();
  dst_.CopyFrom(silent, 10);
  EXPECT_EQ(Read(dst_, 0, 10), Vec(10, 0.0f));
  EXPECT_EQ(dst_[0][10], 9.0f);
  EXPECT_FALSE(dst_.IsChannelZero(0));
  dst_.CopyFrom(silent);  // the uncounted form flags everything
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());
  EXPECT_EQ(Read(dst_, 0, 64), zeros_);

  AudioBuffer three(3, 64);
  FillValue(three, 2, 9.0f);
  FillValue(three, 1, 9.0f);
  EXPECT_NO_ALLOCATION(three.CopyCertainChannelsFrom(src_, 1000, Mask(0b01)));  // capped at the use size
  EXPECT_EQ(Read(three, 0, 64), a_);
  for (std::uint32_t ch : {1u, 2u}) {  // excluded and missing channels are silenced
    EXPECT_EQ(Read(three, ch, 64), zeros_);
    EXPECT_TRUE(three.IsChannelZero(ch));
  }

  dst_.CopyFromScale(src_, 0.0f);
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());
  src_.SetChannelZero(0);
  EXPECT_NO_ALLOCATION(dst_.CopyFromScale(src_, 2.0f));
  EXPECT_TRUE(dst_.IsChannelZero(0));
  EXPECT_FALSE(dst_.IsChannelZero(1));
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[1][i], 2.0f * b_[i]);
}

TEST_F(AudioBufferOps, CopyChannel) {
  AudioBuffer b(3, 64);
  FillNoise(b, 20);
  const Vec c1 = Read(b, 1, 64);
  b.SetChannelZero(2);
  EXPECT_NO_ALLOCATION(b.CopyChannel(src_, 0, 2));
  EXPECT_EQ(Read(b, 2, 64), a_);
  EXPECT_FALSE(b.IsChannelZero(2));
  b.CopyChannel(0, 7);  // destination out of range: nothing
  EXPECT_EQ(Read(b, 1, 64), c1);
  b.CopyChannel(5, 1);  // an invalid source silences
  EXPECT_EQ(Read(b, 1, 64), zeros_);
  EXPECT_TRUE(b.IsChannelZero(1));
  src_.SetChannelZero(1);
  b.CopyChannel(src_, 1, 0);  // so does a silent one
  EXPECT_EQ(Read(b, 0, 64), zeros_);
  EXPECT_TRUE(b.IsChannelZero(0));
}

TEST_F(AudioBufferOps, MixFlagOutcomes) {
  dst_.Zero();
  src_.SetChannelZero(1);
  EXPECT_NO_ALLOCATION(dst_.Mix(src_));  // into silence: a copy
  EXPECT_EQ(Read(dst_, 0, 64), a_);
  EXPECT_TRUE(dst_.IsChannelZero(1));
  src_.ClearZero();

  // A flagged destination channel is overwritten, not added to its stale samples.
  const Vec d0 = Read(dst_, 0, 64);
  FillValue(dst_, 1, 9.0f);
  dst_.Mix(src_);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(dst_[0][i], d0[i] + a_[i]);
  EXPECT_EQ(Read(dst_, 1, 64), b_);
  EXPECT_FALSE(dst_.IsChannelZero(1));

  // Flagged source channels and all-silent sources leave the destination alone.
  const Vec before0 = Read(dst_, 0, 64);
  src_.SetChannelZero(0);
  dst_.Mix(src_);
  EXPECT_EQ(Read(dst_, 0, 64), before0);
  const Vec before1 = Read(dst_, 1, 64);
  src_.SetChannelZero(1);
  dst_.Mix(src_);
  EXPECT_EQ(Read(dst_, 1, 64), before1);
}

TEST_F(AudioBufferOps, GainReverseAndZeroing) {
  src_.SetChannelZero(1);
  FillValue(src_, 1, 9.0f);
  EXPECT_NO_ALLOCATION(src_ *= 0.25f);
  for (std::size_t i = 0; i < 64; ++i) EXPECT_EQ(src_[0][i], a_[i] * 0.25f);
  EXPECT_EQ(Read(src_, 1, 64), stale_);  // flagged: not touched

  src_.SetUseSize(7);  // odd, so the middle sample stays
  EXPECT_NO_ALLOCATION(src_.Reverse());
  for (std::uint32_t i = 0; i < 7; ++i) EXPECT_EQ(src_[0][i], a_[6 - i] * 0.25f);
  EXPECT_EQ(src_[0][7], a_[7] * 0.25f);
  EXPECT_EQ(Read(src_, 1, 64), stale_);

  EXPECT_NO_ALLOCATION(dst_.ZeroChannel(0, 10));
  EXPECT_EQ(Read(dst_, 0, 10), Vec(10, 0.0f));
  EXPECT_EQ(dst_[0][10], 9.0f);
  EXPECT_FALSE(dst_.IsChannelZero(0));
  dst_.ZeroChannel(0, 64);
  EXPECT_TRUE(dst_.IsChannelZero(0));
  EXPECT_NO_ALLOCATION(dst_.Zero());
  EXPECT_EQ(Read(dst_, 1, 64), zeros_);
  EXPECT_EQ(dst_.GetChannelZeroMask(), Mask::AllOnes());
}

TEST(AudioBufferWide, MoreThan64ChannelsAlignmentFlagsAndOperations) {
  for (std::uint32_t size : {1u, 3u, 887u}) {
    AudioBuffer w(70, size);
    for (std::uint32_t ch = 0; ch < 70; ++ch) {
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(w[ch]) % 64, 0u) << size;
      EXPECT_TRUE(ch == 0 || w[ch] >= w[ch - 1] + size + 4) << size;
    }
  }
  AudioBuffer a(70, 32), b(70, 32);
  FillNoise(a, 40);
  b.CopyFrom(a);
  b.Mix(a);
  b *= 0.5f;
  for (std::uint32_t ch = 0; ch < 70; ++ch) ASSERT_EQ(Read(b, ch, 32), Read(a, ch, 32)) << ch;

  b.SetChannelZero(65);  // no flag of its own
  EXPECT_EQ(b.GetChannelZeroMask(), Mask(0));
  b.SetChannelsZero(Mask::LowBits(63));
  EXPECT_FALSE(b.IsZero());
  b.SetChannelZero(63);
  EXPECT_TRUE(b.IsZero());
  EXPECT_TRUE(b.IsChannelZero(65));
}

TEST(AudioBufferChannelView, ForwardsFlagsAndWritesToTheParentChannel) {
  AudioBuffer parent(2, 64), mono(1, 64);
  FillNoise(parent, 50);
  FillNoise(mono, 61);
  const Vec left = Read(parent, 0, 64);
  parent.SetChannelZero(1);
  AudioBufferChannel view;
  EXPECT_NO_ALLOCATION(view.Assign(parent, 1));
  EXPECT_EQ(view[0], parent[1]);
  EXPECT_TRUE(view.IsChannelZero(7));  // the argument is ignored
  view.ClearZero();
  EXPECT_FALSE(parent.IsChannelZero(1));
  view.SetChannelZero(5);
  EXPECT_EQ(parent.GetChannelZeroMask() & Mask::LowBits(2), Mask(0b10));
  view.SetChannelsZero(Mask(0b01));  // the mask forms pass the flags through as given
  EXPECT_TRUE(parent.IsChannelZero(0));
  parent.ClearChannelZero(0);

  AudioBufferChannel copy(view);
  EXPECT_NO_ALLOCATION(copy.CopyFrom(mono));
  EXPECT_FALSE(parent.IsChannelZero(1));
  EXPECT_EQ(Read(parent, 1, 64), Read(mono, 0, 64));
  copy.Zero();
  EXPECT_EQ(Read(parent, 1, 64), Vec(64, 0.0f));
  EXPECT_TRUE(parent.IsChannelZero(1));
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_EQ(Read(parent, 0, 64), left);
  view.Assign(parent, 2);  // out of range: empty
  EXPECT_EQ(view.GetParent(), nullptr);
  EXPECT_TRUE(view.IsZero());
}

TEST(AudioSubBufferView, SizesNestingAndFlagOverrides) {
  AudioBuffer parent(2, 1024);
  FillNoise(parent, 70);
  const Vec left = Read(parent, 0, 1024);
  parent.SetChannelZero(1);
  AudioSubBuffer sub, half, quarter;
  sub.Init(3);
  sub.Assign(parent, 0);  // more channels than the parent: ignored
  EXPECT_EQ(sub.GetParent(), nullptr);
  half.Init(2);
  quarter.Init(2);
  EXPECT_NO_ALLOCATION(half.Assign(parent, 512));
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
  EXPECT_NO_ALLOCATION(sub.SetChannelZero(0));
  sub.ZeroChannel(1, 3);
  EXPECT_TRUE(sub.IsZero());
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_EQ(Read(parent, 0, 1024), left);
  sub.SetChannelsZero(Mask(0b01));  // assigns rather than ORs
  EXPECT_EQ(sub.GetChannelZeroMask(), Mask(0b01));
  sub.ClearChannelsZero(Mask(0b01));  // names the channels that carry sound
  EXPECT_FALSE(sub.IsChannelZero(0));
  EXPECT_TRUE(sub.IsChannelZero(1));

  parent.SetUseSize(500);
  sub.Assign(parent, 100);
  EXPECT_EQ(sub.GetBufferSize(), 924u);
  EXPECT_EQ(sub.GetUseSize(), 400u);
  sub.ShiftOffset(600);  // past the use size: nothing valid left, room remains
  EXPECT_EQ(sub.GetBufferSize(), 324u);
  EXPECT_EQ(sub.GetUseSize(), 0u);
  EXPECT_EQ(sub[1], parent[1] + 700);
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
  EXPECT_TRUE(inner.IsChannelZero(0));
  std::fill(inner[0], inner[0] + 64, 0.5f);
  EXPECT_NO_ALLOCATION(inner.ClearChannelZero(0));  // two levels deep: the grandparent is cleaned too
  const Vec q = Read(parent, 0, 1024);
  for (std::size_t i = 0; i < 1024; ++i) ASSERT_EQ(q[i], (i >= 640 && i < 704) ? 0.5f : 0.0f) << i;
  EXPECT_FALSE(parent.IsChannelZero(0));
  EXPECT_FALSE(half.IsChannelZero(0));
}

TEST(AudioSubBufferView, ShiftOffsetWalksAcrossTheParent) {
  for (std::uint32_t block : {128u, 7u}) {
    AudioBuffer parent(1, 1000);
    FillNoise(parent, 90);
    const Vec orig = Read(parent, 0, 1000);
    ProbeSubBuffer sub;
    sub.Init(1);
    sub.Assign(parent, 0);
    sub.SetUseSize(block);
    std::uint32_t offset = 0;
    float gain = 1.0f;
    while (sub.GetBufferSize() > 0) {
      ASSERT_EQ(sub[0], parent[0] + offset);
      ASSERT_EQ(sub.GetUseSize(), std::min(block, 1000 - offset));
      EXPECT_EQ(sub.GetAlignment(), offset % 4 == 0 ? 4 : 1);
      sub *= gain;
      gain += 1.0f;
      EXPECT_NO_ALLOCATION(sub.ShiftOffset(block));
      offset += block;
      sub.SetUseSize(block);
    }
    for (std::uint32_t i = 0; i < 1000; ++i) ASSERT_EQ(parent[0][i], orig[i] * static_cast<float>(i / block + 1)) << i;
  }
  // An aligned pointer with a use size that is not a multiple of 4.
  AudioBuffer parent(1, 1024);
  parent.SetUseSize(1023);
  ProbeSubBuffer sub;
  sub.Init(1);
  sub.Assign(parent, 8);
  EXPECT_EQ(sub.GetAlignment(), 4);
  EXPECT_FALSE(sub.IsAlignedUse());
}

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

TEST(AudioBufferShellView, WrapsUnalignedHostMemory) {
  vextest::PlanarBlock host(2, 256, 5.0f);
  float* ptrs[2] = {host.Channel(0).data() + 1, host.Channel(1).data() + 1};
  AudioBufferShell shell;
  shell.Init(2);
  EXPECT_NO_ALLOCATION(shell.Assign(ptrs, 255));
  EXPECT_EQ(shell.GetChannelZeroMask(), ~Mask::LowBits(2));
  shell.SetUseSize(1000);  // views never allocate samples: capped at the capacity
  EXPECT_EQ(shell.GetUseSize(), 255u);
  EXPECT_EQ(shell[1], ptrs[1]);
  shell.Assign(nullptr, 10);  // ignored
  EXPECT_EQ(shell.GetBufferSize(), 255u);

  AudioBuffer src(2, 255);
  FillNoise(src, 102);
  shell.CopyFrom(src);
  shell *= 0.5f;
  for (std::size_t i = 0; i < 255; ++i) ASSERT_EQ(host.Channel(1)[i + 1], src[1][i] * 0.5f);
  EXPECT_EQ(host.Channel(1)[0], 5.0f);
  shell.Zero();
  EXPECT_EQ(Vec(host.Channel(0).begin() + 1, host.Channel(0).end()), Vec(255, 0.0f));
}

}  // namespace
