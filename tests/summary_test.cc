#include "metrics/metric_summary.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "support/environment.h"

namespace METRICS {
namespace {

using Samples = std::vector<double>;

// Different numbers up to a count of 10006: rising with step 1, falling with step 10006.
Samples Steps(size_t count, double step, double shift = 0) {
  Samples samples(count);
  double sum = 0;
  for (double& sample : samples) sample = std::fmod(sum += step, 10007) + shift;
  return samples;
}

// The report of an exact cell.
Samples Exactly(Samples samples) {
  std::sort(samples.begin(), samples.end(),
            [](double a, double b) { return a < b || (std::isnan(b) && !std::isnan(a)); });
  const double sum = std::accumulate(samples.begin(), samples.end(), 0.0);
  const auto n = static_cast<double>(samples.size());
  Samples report{samples.front(), samples.back(), sum / n, sum, n};
  for (const double q : {0.5, 0.9, 0.95, 0.99, 0.999}) {
    report.push_back(samples.at(static_cast<size_t>(q * n)));
  }
  return report;
}

Samples Report(MetricBasicData& cell, const Samples& samples) {
  for (const double sample : samples) cell.Emit(sample);
  return cell.Send(30).values;
}

}  // namespace

class SummaryTest : public testing::Test {
 protected:
  static size_t Blocks(const ChainedVector& samples) {
    size_t blocks = 0;
    for (auto* block = samples.head_; block != nullptr; block = block->next) ++blocks;
    return blocks;
  }
  static size_t KeptSamples(CKMSQuantiles& quantiles) {
    const WriteGuard guard(quantiles.mutex_);
    return quantiles.sample_.size();
  }

  MetricSummaryVecV1 v1;
  MetricSummaryVecV2 v2;
  MetricSummaryCKMS ckms;
  const std::vector<MetricBasicData*> exact{&v1, &v2}, all{&v1, &v2, &ckms};
};

namespace {

TEST_F(SummaryTest, ExactCellsReportThePercentilesOfAPlainSortWithNansBehind) {
  std::vector<Samples> cases{{NAN, 3, 1, INFINITY, NAN}, {1, INFINITY}, {INFINITY, -INFINITY, 1}};
  for (const size_t count :
       {1u, 2u, 100u, 255u, 256u, 257u, 1024u, 1025u, 31744u, 31745u, 40000u}) {
    cases.insert(cases.end(), 2, Steps(count, 7919, -3000.1));
    for (double& sample : cases.back()) sample = std::sqrt(sample);  // NaN for a third of them
  }
  for (const Samples& samples : cases) {
    for (MetricBasicData* const cell : exact) {
      EXPECT_THAT(Report(*cell, samples),
                  testing::Pointwise(testing::NanSensitiveDoubleEq(), Exactly(samples)));
    }
    EXPECT_EQ(Report(ckms, samples).at(4), static_cast<double>(samples.size()));
  }
}

TEST_F(SummaryTest, AddsFourBlocksOfASizeAndBeginsAnewAfterADrain) {
  // Samples that fit into a number of blocks.
  const std::pair<size_t, uint32_t> steps[] = {{1, 256},    {2, 512},    {4, 1024},  {5, 1536},
                                               {8, 3072},   {9, 4096},   {13, 9216}, {17, 19456},
                                               {20, 31744}, {21, 39936}, {22, 48128}};
  ChainedVector samples;
  for (int round = 0; round < 2; ++round) {
    uint32_t added = 0;
    for (const auto& [blocks, fit] : steps) {
      for (; added < fit; ++added) samples.Add(1);
      EXPECT_EQ(Blocks(samples), blocks);
      samples.Add(1), ++added;
      EXPECT_EQ(Blocks(samples), blocks + 1);
    }
    EXPECT_EQ(samples.Send().at(4), 48129);
  }
}

TEST_F(SummaryTest, ThreadsThatEmitBesideADrainLoseNothing) {
  for (MetricBasicData* const cell : all) {
    std::atomic<int> rounds{0};
    tidegate::test::Workers emitters;
    emitters.Start(3, [&rounds, cell](int) {
      for (long i = 1; i <= 2000; ++i) cell->Emit(i);
      ++rounds;
    });
    Samples total(10);
    for (bool done = false; !done;) {
      done = rounds >= 60;
      if (done) emitters.Stop();
      const Samples report = cell->Send(1).values;
      for (size_t i = 0; i < report.size(); ++i) total[i] += report[i];
    }
    EXPECT_EQ(total[4], rounds * 2000.0);
    EXPECT_EQ(total[3], rounds * 2001000.0);
    EXPECT_EQ(cell->Send(1).field_width, 10u) << "of a quiet interval";
  }
}

// The estimates come from another implementation of the algorithm, in another language.
TEST_F(SummaryTest, EstimatesAreThoseOfTheAlgorithmAndTheRestIsExact) {
  const std::pair<Samples, Samples> cases[] = {
      {{1, 3}, {1, 1, 1, 1, 1}},
      {Steps(499, 1), {248, 443, 468, 488, 492}},
      {Steps(501, 1), {248, 445, 469, 489, 495}},
      {Steps(10000, 1), {5009, 9065, 9565, 9967, 10000}},  // none off by 1 % of the ranks
      {Steps(500, 10006), {9754, 9951, 9975, 9995, 9999}},
      {Steps(10000, 10006), {5008, 9080, 9588, 9985, 10006}},
      {Steps(10000, 7919), {5062, 9083, 9574, 10005, 10006}}};
  for (const auto& [samples, percentiles] : cases) {
    Samples expected = Exactly(samples);
    std::copy(percentiles.begin(), percentiles.end(), expected.begin() + 5);
    EXPECT_EQ(Report(ckms, samples), expected) << samples.size();
  }
  EXPECT_EQ(Report(ckms, {-2, -4}).at(1), 2.2250738585072014e-308);
  CKMSQuantiles quantiles;
  for (const double sample : Steps(100000, 7919)) quantiles.Insert(sample);
  EXPECT_LT(KeptSamples(quantiles), 5000u);
}

}  // namespace
}  // namespace METRICS
