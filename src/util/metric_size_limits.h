#pragma once

#include <cstdint>

#include "codec/pack.h"

namespace METRICS {

/// Initial capacity of a packet buffer in bytes, and the length at which a packet is sent.
constexpr int32_t kMetricMaxMsgLen = lattice_kit::codec::kPacketBytes;

/// Send buffer of the agent's socket in bytes; a scratch buffer that grew beyond it is cut back.
constexpr int32_t kMetricSendBufSize = lattice_kit::codec::kMostKeptBytes;

/// Most bytes of the keys and values of all tags of one series.
constexpr unsigned long kMaxSeriesTagBytes = 64UL << 20;

/// Initial capacity of the scratch buffers that tags and columns are encoded in, in bytes.
constexpr int32_t kTagScratchBytes = 64;

}  // namespace METRICS
