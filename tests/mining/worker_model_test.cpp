// The walk in groups against a worker that tests header by header.

#include <gtest/gtest.h>

#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "mining/nonce_walk.h"

namespace norvel::mining {

namespace {

#ifdef NORVEL_SANITIZED
constexpr int kRounds = 8;
#else
constexpr int kRounds = 40;
#endif

bool always() {
  return true;
}

// Every nonce may be a hit: what a group may name, at its widest.
uint32_t name_all(const PreparedHeader&, uint32_t, uint32_t) {
  return ~uint32_t{0};
}

// Those that run here, and ones of awkward sizes.
std::vector<SearchKernel> kernels() {
  std::vector<SearchKernel> all = {{"names all of 1", 1, &always, &name_all},
                                   {"names all of 7", 7, &always, &name_all},
                                   {"names all of 32", 32, &always, &name_all}};
  for (const SearchKernel& kernel : search_kernels()) {
    if (kernel.runs_here()) {
      all.push_back(kernel);
    } else {
      std::cout << "skipped: " << kernel.name << "\n";
    }
  }
  return all;
}

BlockHeader make_header(uint64_t number, uint32_t bits) {
  BlockHeader header;
  header.prev_hash = uint256(number);
  header.bits = bits;
  return header;
}

// What is given to a worker: each find and each refresh brings the next header.
struct Scene {
  uint64_t seed;
  uint32_t bits;
  NonceWalk::Plan plan;

  BlockHeader header(uint64_t number) const { return make_header(seed + number, bits); }
};

// One header tested, and how many were when it had been.
struct Step {
  uint64_t header_number;
  uint32_t nonce;
  bool is_hit;
  uint64_t counter;
  bool operator==(const Step&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
  return out << step.header_number << ":" << step.nonce << (step.is_hit ? "!" : "") << " #" << step.counter;
}

std::vector<Step> steps_one_by_one(const Scene& scene, size_t count) {
  std::vector<Step> steps;
  uint64_t number = 0;
  BlockHeader header = scene.header(0);
  header.nonce = scene.plan.start_nonce;
  while (steps.size() < count) {
    Step step = {number, header.nonce, header.check_proof_of_work(), steps.size() + 1};
    if (step.is_hit) {
      header = scene.header(++number);
      header.nonce = scene.plan.start_nonce;
    }
    header.nonce += scene.plan.stride;
    steps.push_back(step);
    if (step.counter % scene.plan.lap_hashes == 0) {
      header = scene.header(++number);
      header.nonce = scene.plan.start_nonce;
    }
  }
  return steps;
}

std::vector<Step> steps_in_groups(const SearchKernel& kernel, const Scene& scene, size_t count) {
  std::vector<Step> steps;
  uint64_t number = 0;
  StripedCounter::Stripe counter;
  NonceWalk walk(kernel, scene.plan, counter);
  walk.restart(scene.header(0));
  while (steps.size() < count) {
    uint32_t nonce = walk.header().nonce;
    const bool found = walk.search_group();
    while (steps.size() < counter.count()) {
      steps.push_back({number, nonce, false, steps.size() + 1});
      nonce += scene.plan.stride;
    }
    EXPECT_EQ(walk.header().nonce, nonce);
    if (found) {
      const uint64_t finder_number = number;
      walk.restart(scene.header(++number));
      walk.pass_found();
      steps.push_back({finder_number, nonce, true, counter.count()});
    }
    if (walk.is_lap_done()) {
      walk.restart(scene.header(++number));
    }
  }
  steps.resize(count);
  return steps;
}

TEST(WorkerModel, GroupsTestCountAndFindAsHeaderByHeader) {
  constexpr size_t kSteps = 1'000;
  std::mt19937_64 random(20'240'611);
  for (const SearchKernel& kernel : kernels()) {
    for (int round = 0; round < kRounds; ++round) {
      constexpr uint32_t kStrides[] = {1, 2, 3, 5};
      const Scene scene = {
          .seed = random(),
          .bits = round % 8 == 7 ? 0x2100ffffu : 0x20000000u | 0x8000u << random() % 8,  // most hashes; one in 4 to 512
          .plan = {.start_nonce = static_cast<uint32_t>(round % 2 == 0 ? random() : -(random() % 300)),
                   .stride = kStrides[round / 2 % 4],
                   .lap_hashes = 1 + random() % 200},
      };
      SCOPED_TRACE(std::string(kernel.name) + " round " + std::to_string(round));
      ASSERT_EQ(steps_in_groups(kernel, scene, kSteps), steps_one_by_one(scene, kSteps));
    }
  }
}

constexpr uint32_t kPairBits = 0x2007ffff;  // a hash in 32 meets it

int count_hits(uint32_t first_nonce, uint32_t count) {
  BlockHeader header = make_header(3, kPairBits);
  int hits = 0;
  for (header.nonce = first_nonce; header.nonce != first_nonce + count; ++header.nonce) {
    hits += header.check_proof_of_work() ? 1 : 0;
  }
  return hits;
}

TEST(WorkerModel, TwoHitsInAGroupStandAtTheirPlacesAndInTheirLaps) {
  uint32_t hit = SearchKernel::kLanesMax;
  while (count_hits(hit, 2) != 2 || count_hits(hit - SearchKernel::kLanesMax, SearchKernel::kLanesMax) != 0) {
    ++hit;
  }
  for (const SearchKernel& kernel : kernels()) {
    for (uint32_t lane = 0; lane < kernel.lanes; ++lane) {
      for (const uint32_t lap_hashes : {lane, lane + 1, lane + 2}) {
        SCOPED_TRACE(std::string(kernel.name) + ", lane " + std::to_string(lane) + ", lap " +
                     std::to_string(lap_hashes));
        StripedCounter::Stripe counter;
        NonceWalk walk(kernel, {.start_nonce = hit - lane, .stride = 1, .lap_hashes = lap_hashes + (lap_hashes == 0)},
                       counter);
        walk.restart(make_header(3, kPairBits));
        if (lap_hashes == lane && lane > 0) {  // the first hit is just behind the lap
          EXPECT_FALSE(walk.search_group());
          EXPECT_TRUE(walk.is_lap_done());
        }
        for (const uint32_t k : {0u, 1u}) {
          ASSERT_TRUE(walk.search_group());
          EXPECT_EQ(walk.header().nonce, hit + k);
          EXPECT_EQ(counter.count(), lane + k);
          EXPECT_FALSE(walk.is_lap_done());
          walk.pass_found();
        }
      }
    }
  }
}

}  // namespace

}  // namespace norvel::mining
