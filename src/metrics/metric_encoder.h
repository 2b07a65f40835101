#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "codec/tag_kv.h"
#include "metrics/metric_collector.h"
#include "metrics/metric_packet.h"
#include "metrics/series_items.h"
#include "util/metric_common.h"

namespace METRICS {

class MetricParts;
class RegistryParts;
class PacketSender;

/// Keys of the two tags that say whose data a packet holds.
constexpr char ACCOUNT_ID_KEY[] = "account_id";
constexpr char PROJECT_ID_KEY[] = "project_id";
constexpr const char* kAccountIdKey = ACCOUNT_ID_KEY;
constexpr const char* kProjectIdKey = PROJECT_ID_KEY;

/// Turns the collectors of a flush into packets and hands them to its sender.
class MetricEncoderBase {
 public:
  MetricEncoderBase(PacketSender* sender, const std::string& name);
  virtual ~MetricEncoderBase();
  MetricEncoderBase(const MetricEncoderBase&) = delete;
  MetricEncoderBase& operator=(const MetricEncoderBase&) = delete;

  /// Called once: the identity that every packet carries. A `psm` that is not empty takes the
  /// place of `project`.
  virtual void Init(const std::string& account, const std::string& project,
                    const std::string& psm) = 0;
  /// A whole flush: drains the cells of `collectors` and sends what they report.
  virtual void PackCollector(
      const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) = 0;

  PacketSender* sender_;       ///< not owned
  const std::string name_;     ///< the tenant
  const bool pre_encode_tags;  ///< items hold their tags in packet form
};

/// The encoder of the packet format.
///
/// Runs on its sender's thread alone, and after that has been joined on the thread that stops it.
/// Two packets grow side by side: one of the flush's boundary, and one of the interval before it
/// for counters that begin or resume. A packet is sent when it has reached 262143 bytes, when the
/// registry changes and at the end; a series record is never split, so a packet can be longer.
/// What a cell has reported is gone from it, whether or not the packet arrives. A flush that runs
/// out of memory sends the records that it has and throws; the cells that it had not come to keep
/// theirs.
class MetricEncoder final : public MetricEncoderBase {
 public:
  using SuffixOf = std::string& (*)(const unsigned long&);

  MetricEncoder(PacketSender* sender, const std::string& name);
  ~MetricEncoder() override;

  void Init(const std::string& account, const std::string& project,
            const std::string& psm) override;
  void PackCollector(const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors) override;

  /// Column list of a block in its packet form.
  static std::string PrePack(const std::vector<lattice_kit::codec::FieldInfo>& fields);

  // The parts of a metric block.

  /// Appends the header of an open block. `fields` is a result of `PrePack`, or empty.
  static void PutMetricHeader(EPacket& pack, MetricsType type, unsigned int hash,
                              const std::string& name, const std::string& fields, long timestamp);
  /// Opens a block. `fields` is a result of `PrePack`, or empty. `save` keeps a copy of the
  /// header in the pack.
  static void EncodeMetricHeader(MetricDataPack& pack, MetricsType type, unsigned int hash,
                                 const std::string& name, const std::string& fields, long timestamp,
                                 bool save);
  /// Closes the open block, if there is one.
  static void RefillMetricHeader(MetricDataPack& pack);
  /// Opens the block whose header was saved again, in a new packet.
  static void CopyFromCurrentMetricHeader(MetricDataPack& pack);
  /// Writes one series record; nothing without `values`, or, with an Error line, for one that is
  /// longer than a packet can get.
  static void EncodeOneSeriesValue(MetricDataPack& pack, std::string_view tag_block,
                                   const std::vector<uint32_t>& field_indexes,
                                   const std::vector<double>& values);
  /// Rewinds the pack, keeping its buffer.
  static void Reset(MetricDataPack& pack);

  // Names of the numbers of cells that report several. REQUIRES: `idx` is below the array's size.
  static std::string& ConvertIdxToTimerSuffix(const unsigned long& idx);
  static std::string& ConvertIdxToMeterSuffix(const unsigned long& idx);
  static std::string& ConvertIdxToDeltaCounter(const unsigned long& idx);
  /// Builds the tables behind these, which are never destroyed.
  static void PrepareSuffixTables();

 private:
  void EncodeCodecHeader(const std::string& tenant);
  void EncodeTenantTags(EPacket& packet);
  void PackAll(const std::vector<std::shared_ptr<MetricCollectorBase>>& collectors);
  void EndFlush();
  void CountLostSeries();
  void PackMetric(const std::shared_ptr<MetricCollectorBase>& collector);
  /// Drains a series or a cell and writes what it reports: `work`. Where memory runs out in
  /// between, that is lost, and the sender counts it.
  template <class Work>
  void DrainAndWrite(Work work);
  /// Sends what both packets hold.
  void CleanUpPackage();
  void RePackFromRegistry(MetricDataPack& pack);
  /// Stamps a packet that is about to be sent; `close` closes an open block.
  void RefillBeforeSend(MetricDataPack& pack, int16_t& metric_num, int16_t& series_num, bool close);
  void StampAndSend(MetricDataPack& pack, bool close);
  /// Sends the packet if it has reached the size limit.
  bool CheckMsgLenAndSend(MetricDataPack& pack, bool close);
  /// For a walk that has come to `items[at]`: has the memory of the ones behind it fetched. A flush
  /// of many series waits for little else.
  static void FetchAhead(const std::vector<Series>& items, size_t at);
  /// The same, and lets go of the series ahead of it, whose memory is still near.
  static void AdvanceTo(std::vector<Series>& items, size_t at);
  /// Makes `series` the one being packed.
  void BeginSeries(const Series& series);
  /// Its tags in packet form, encoded when they are first asked for.
  std::string_view EncodeCurrentTagKV();

  // Suffixed metrics.

  /// The blocks of one suffix and type: the same for all series of a metric but for the tags, the
  /// time and the numbers.
  struct SuffixBlocks {
    std::string suffix;
    MetricsType type = MetricsType::kUnknown;
    bool row = false;                  ///< one block of several columns, not one per number
    size_t numbers = 0;                ///< that a cell has to report
    std::vector<std::string> headers;  ///< of closed blocks, without their length and time
  };

  /// A series whose cells are listed, and on their way to the cache while others are packed. One
  /// that wakes, or gets a cell, behind that goes out with the next flush.
  struct ListedSeries {
    bool active = false;
    std::vector<CellRef> cells;
  };

  void PackSuffixedMetric(std::vector<Series>& items);
  /// Lists `items[begin]` and some behind it into `listed_`; gives the place behind the last one.
  size_t ListFrom(const std::vector<Series>& items, size_t begin);
  void PackListedSeries(const Series& series, const ListedSeries& listed);
  /// Drains a cell and writes what it reports. `place` is that of the cell among those of its
  /// series.
  void EncodeMetricWithSuffix(const CellRef& ref, size_t place);
  /// Whether a cell of type `type` goes out as one row of numbers.
  bool IsRow(const MetricsType& type) const;
  /// The blocks of this metric; made when they are first asked for. `place` is where to look first.
  const SuffixBlocks& BlocksOf(const std::string& suffix, MetricsType type, bool row,
                               size_t place = 0);
  SuffixBlocks MakeBlocks(const std::string& suffix, MetricsType type, bool row) const;
  /// `fields` is a result of `PrePack`, or empty.
  std::string BlockHeader(MetricsType type, const std::string& tail,
                          const std::string& fields) const;
  std::vector<lattice_kit::codec::FieldInfo> RowFieldsOf(const MetricsType& type) const;
  // Write blocks of the current series. REQUIRES: there are `blocks.numbers` values.
  void PackNumbers(MetricDataPack& pack, const SuffixBlocks& blocks, const double* values,
                   long timestamp);
  void DoPackSuffixMetric(MetricDataPack& pack, const SuffixBlocks& blocks, const double* values,
                          long timestamp);
  void DoPackSuffixToMultiField(MetricDataPack& pack, const SuffixBlocks& blocks,
                                const double* values, long timestamp);
  void EncodeOneSeriesMetric(MetricDataPack& pack, const std::string& header, const double* values,
                             size_t count, long timestamp);
  /// Makes room for the bytes of a series record; false, with an Error line, when a packet cannot
  /// get that long.
  static bool MakeRoom(MetricDataPack& pack, size_t bytes) {
    return pack.TryReserve(bytes) || RefuseRecord(bytes);
  }
  static bool RefuseRecord(size_t bytes);
  /// REQUIRES: the kind of the cell has such a point.
  void EncodePreviousInterval(double prev_value, const SuffixBlocks& blocks);

  // Metrics with a row of fields.
  void PackMultiFeildMetric(std::vector<Series>& items);
  void EncodeRowHeader(MetricDataPack& pack, long timestamp, bool save);
  /// Sends `pack_` at the size limit and opens its block again, unless this was the `last` series.
  void ContinueBlockIfSent(bool last);
  void EncodeMultiFieldSeries(const Series& series);
  void EncodeMultiFieldExtendSeries(const MultiFieldSendRes& res);

  // Compatible metrics.
  void PackCompatibleMetric(std::vector<Series>& items);
  void EncodeCurrentCompatibleMetricHeader(MetricDataPack& pack, MetricsType type);
  void EncodeCompatible(const MetricsType& type, std::vector<Series>& items,
                        unsigned long array_size);
  void EncodeCompatibleWithSuffix(const MetricsType& type, std::vector<Series>& items);
  void EncodeExtendCompatibleSeries(const MetricsType& type, double prev_value);
  /// Builds the tags of a series once, from its pairs and the registry's tags. Of equal keys the
  /// first is kept: a pair's before the registry's.
  void EncodeCompatibleMetricTagKV(const Series& series);

  MetricDataPack pack_;       ///< of the flush's boundary
  MetricDataPack prev_pack_;  ///< of the interval before; restarted when it is first needed
  uint32_t header_len_ = 0;
  std::shared_ptr<RegistryParts>
      registry_;                         ///< whose metrics the packets hold; null between flushes
  std::shared_ptr<MetricParts> metric_;  ///< being packed; null otherwise
  int32_t interval_ = 30;                ///< seconds, of `registry_`
  std::vector<lattice_kit::codec::TagKV> tenant_tags_;
  std::string codec_header_;

  // Of the series being packed. What is gathered here keeps its memory from series to series.
  const Series* series_ = nullptr;
  std::string_view cur_tag_kv_;  ///< its tags in packet form; null: not encoded yet
  lattice_kit::codec::Pack tag_scratch_{kTagScratchBytes};
  static constexpr size_t kSeriesAhead = 8;
  static constexpr size_t kCellsKept = 1024;  ///< that a list keeps memory for
  std::array<ListedSeries, kSeriesAhead> listed_;
  MultiFieldSendRes row_;

  static constexpr size_t kSearchedBlocks = 12;

  std::vector<SuffixBlocks> blocks_;  ///< of the metric being packed
  /// Places in `blocks_` by suffix, of those behind the first `kSearchedBlocks`.
  std::unordered_multimap<std::string, size_t> more_blocks_;
};

template <class Work>
void MetricEncoder::DrainAndWrite(Work work) {
  try {
    work();
  } catch (const std::bad_alloc&) {
    CountLostSeries();
    throw;
  }
}

/// Whether a cell reported what its type asks for: false when `values` is empty, and, with a Warn
/// line, when its size is not `expected`.
bool CheckSendRes(MetricsType type, const std::vector<double>& values, unsigned long expected);

}  // namespace METRICS
