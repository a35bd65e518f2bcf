#include "dtl_dict.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "dtl_logger.h"

namespace {

struct DictDeleter {
  void operator()(dtl_custom_options* d) const { dtl_dict_delete(d); }
};
using Dict = std::unique_ptr<dtl_custom_options, DictDeleter>;

Dict MakeDict() {
  Dict d(dtl_dict_create());
  EXPECT_NE(d, nullptr);
  return d;
}

using Entries = std::vector<std::pair<std::string, std::string>>;

// Entries in bucket order; a null value shows as "<null>".
Entries Collect(const dtl_custom_options* d) {
  Entries out;
  EXPECT_TRUE(dtl_dict_enum(
      d,
      [](const char* k, const char* v, void* u) {
        static_cast<Entries*>(u)->emplace_back(k, v != nullptr ? v : "<null>");
        return true;
      },
      &out));
  return out;
}

std::vector<std::string> g_lines;
void CaptureLog(int, const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  g_lines.emplace_back(buf);
}

TEST(DictTable, FirstInsertCreatesFourBucketsAndGrowsAtUpperBound) {
  Dict d = MakeDict();
  EXPECT_EQ(d->table->n_buckets, 0u);
  EXPECT_EQ(dtl_dict_get(d.get(), "x"), nullptr);
  // (k, buckets) at each growth: the k-th insertion finds the occupancy at
  // the bound buckets * 0.77 + 0.5 (3, 6, 12, 25, 49) and doubles first.
  std::vector<std::pair<int, uint32_t>> growth;
  for (int k = 1; k <= 50; ++k) {
    const uint32_t before = d->table->n_buckets;
    ASSERT_TRUE(dtl_dict_add(d.get(), ("key" + std::to_string(k)).c_str(), "v"));
    if (d->table->n_buckets != before) growth.emplace_back(k, d->table->n_buckets);
  }
  EXPECT_EQ(growth, (std::vector<std::pair<int, uint32_t>>{
                        {1, 4}, {4, 8}, {7, 16}, {13, 32}, {26, 64}, {50, 128}}));
  EXPECT_EQ(d->table->upper_bound, 99u);
}

TEST(DictTable, HashAndTriangularProbingFixBucketOrder) {
  Dict d = MakeDict();
  // In 4 buckets: "a" hashes to 97 -> bucket 1; "ab" to 97*31+98 -> bucket 1,
  // probed to 2; "e" to 101 -> bucket 1, probed to 2 and then 0.
  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "1"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "ab", "2"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "e", "3"));
  ASSERT_EQ(d->table->n_buckets, 4u);
  EXPECT_EQ(Collect(d.get()), (Entries{{"e", "3"}, {"a", "1"}, {"ab", "2"}}));
  // Buckets 0-2 in use (state 0); bucket 3 and the word's unused tail are
  // empty (state 2).
  EXPECT_EQ(d->table->flags[0], 0xaaaaaa80u);
}

TEST(DictTable, ThousandsOfKeysStayReachable) {
  Dict d = MakeDict();
  constexpr int kKeys = 5000;
  for (int i = 0; i < kKeys; ++i) {
    const std::string k = "option-" + std::to_string(i);
    ASSERT_TRUE(dtl_dict_add(d.get(), k.c_str(), std::to_string(i * 7).c_str()));
  }
  EXPECT_EQ(d->table->size, static_cast<uint32_t>(kKeys));
  EXPECT_EQ(d->table->n_buckets, 8192u);
  EXPECT_LT(d->table->n_occupied, d->table->upper_bound);
  for (int i = 0; i < kKeys; ++i) {
    const std::string k = "option-" + std::to_string(i);
    const char* v = dtl_dict_get(d.get(), k.c_str());
    ASSERT_NE(v, nullptr) << k;
    EXPECT_EQ(std::string(v), std::to_string(i * 7));
  }
  EXPECT_EQ(Collect(d.get()).size(), static_cast<size_t>(kKeys));
  EXPECT_EQ(dtl_dict_get(d.get(), "option-5000"), nullptr);
  EXPECT_EQ(dtl_dict_get(d.get(), "Option-1"), nullptr);  // case-sensitive
}

TEST(DictTable, RemovalLeavesProbeChainsIntactAndReusesBuckets) {
  Dict d = MakeDict();
  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "1"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "ab", "2"));  // probed past "a"
  ASSERT_TRUE(dtl_dict_remove(d.get(), "a"));
  EXPECT_FALSE(dtl_dict_remove(d.get(), "a"));
  EXPECT_EQ(dtl_dict_get(d.get(), "a"), nullptr);
  EXPECT_STREQ(dtl_dict_get(d.get(), "ab"), "2");

  // Re-adding a key behind a deleted bucket must find it, not duplicate it.
  ASSERT_TRUE(dtl_dict_add(d.get(), "ab", "3"));
  EXPECT_EQ(d->table->size, 1u);
  EXPECT_EQ(Collect(d.get()), (Entries{{"ab", "3"}}));

  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "4"));  // takes the deleted bucket back
  EXPECT_EQ(d->table->n_occupied, 2u);
  EXPECT_EQ(Collect(d.get()), (Entries{{"a", "4"}, {"ab", "3"}}));
}

TEST(DictTable, ChurnRebuildsInPlaceInsteadOfGrowing) {
  Dict d = MakeDict();
  // Ten live keys while thousands come and go: deleted buckets are dropped
  // at the same bucket count, so the table never grows past what ten need.
  for (int i = 0; i < 3000; ++i) {
    ASSERT_TRUE(dtl_dict_add(d.get(), ("k" + std::to_string(i)).c_str(), "v"));
    if (i >= 10) {
      ASSERT_TRUE(dtl_dict_remove(d.get(), ("k" + std::to_string(i - 10)).c_str()));
    }
  }
  EXPECT_EQ(d->table->size, 10u);
  EXPECT_LE(d->table->n_buckets, 32u);
  for (int i = 2990; i < 3000; ++i)
    EXPECT_STREQ(dtl_dict_get(d.get(), ("k" + std::to_string(i)).c_str()), "v");
  EXPECT_EQ(dtl_dict_get(d.get(), "k2989"), nullptr);
}

TEST(Dict, AddReplacesValueAndKeepsOneEntry) {
  Dict d = MakeDict();
  ASSERT_TRUE(dtl_dict_add(d.get(), "port", "80"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "port", "8080"));
  EXPECT_STREQ(dtl_dict_get(d.get(), "port"), "8080");
  EXPECT_EQ(Collect(d.get()).size(), 1u);

  ASSERT_TRUE(dtl_dict_add(d.get(), "port", nullptr));  // null values are stored
  EXPECT_EQ(dtl_dict_get(d.get(), "port"), nullptr);
  EXPECT_EQ(Collect(d.get()), (Entries{{"port", "<null>"}}));

  ASSERT_TRUE(dtl_dict_add(d.get(), "", "empty key"));
  EXPECT_STREQ(dtl_dict_get(d.get(), ""), "empty key");
}

TEST(Dict, AppendJoinsWithComma) {
  Dict d = MakeDict();
  ASSERT_TRUE(dtl_dict_add(d.get(), "list", "a"));
  ASSERT_TRUE(dtl_dict_append(d.get(), "list", "b"));
  EXPECT_STREQ(dtl_dict_get(d.get(), "list"), "a,b");
  ASSERT_TRUE(dtl_dict_append(d.get(), "absent", "b"));
  EXPECT_STREQ(dtl_dict_get(d.get(), "absent"), "b");
  ASSERT_TRUE(dtl_dict_add(d.get(), "empty", ""));
  ASSERT_TRUE(dtl_dict_append(d.get(), "empty", "c"));
  EXPECT_STREQ(dtl_dict_get(d.get(), "empty"), "c");
  ASSERT_TRUE(dtl_dict_add(d.get(), "null", nullptr));
  ASSERT_TRUE(dtl_dict_append(d.get(), "null", "d"));
  EXPECT_STREQ(dtl_dict_get(d.get(), "null"), "d");

  EXPECT_FALSE(dtl_dict_append(nullptr, "list", "x"));
  EXPECT_FALSE(dtl_dict_append(d.get(), nullptr, "x"));
  EXPECT_FALSE(dtl_dict_append(d.get(), "list", nullptr));
  EXPECT_STREQ(dtl_dict_get(d.get(), "list"), "a,b");

  std::unique_ptr<char, decltype(&free)> joined(string_concat_comma_separated_token("x,y", "z"),
                                                &free);
  EXPECT_STREQ(joined.get(), "x,y,z");
}

TEST(Dict, EnumStopsAtFirstFalse) {
  Dict d = MakeDict();
  for (const char* k : {"a", "b", "c", "d"}) ASSERT_TRUE(dtl_dict_add(d.get(), k, k));
  int calls = 0;
  EXPECT_FALSE(dtl_dict_enum(
      d.get(), [](const char*, const char*, void* u) { return ++*static_cast<int*>(u) < 2; },
      &calls));
  EXPECT_EQ(calls, 2);
}

TEST(Dict, DupIsIndependentDeepCopy) {
  Dict d = MakeDict();
  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "1"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "n", nullptr));
  Dict copy(dtl_dict_dup(d.get()));
  ASSERT_NE(copy, nullptr);
  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "changed"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "b", "2"));
  d.reset();
  EXPECT_EQ(Collect(copy.get()), (Entries{{"a", "1"}, {"n", "<null>"}}));
}

TEST(Dict, NullHandles) {
  EXPECT_FALSE(dtl_dict_add(nullptr, "k", "v"));
  EXPECT_EQ(dtl_dict_get(nullptr, "k"), nullptr);
  EXPECT_TRUE(dtl_dict_enum(nullptr, [](const char*, const char*, void*) { return false; },
                            nullptr));
  EXPECT_EQ(dtl_dict_dup(nullptr), nullptr);
  EXPECT_FALSE(dtl_dict_remove(nullptr, "k"));
  dtl_dict_dump(nullptr, "none");
  dtl_dict_delete(nullptr);
}

TEST(Dict, DumpLogsTitleThenEntriesInBucketOrder) {
  Dict d = MakeDict();
  ASSERT_TRUE(dtl_dict_add(d.get(), "a", "1"));
  ASSERT_TRUE(dtl_dict_add(d.get(), "e", nullptr));
  g_lines.clear();
  dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_DEBUG);
  dtl_dict_dump(d.get(), "options");
  dtl_dict_dump(nullptr, "none");
  dtl_set_log_func(CaptureLog, DTL_LOG_LEVEL_INFO);  // debug lines are suppressed
  dtl_dict_dump(d.get(), "quiet");
  dtl_set_log_func(nullptr, 0);
  EXPECT_EQ(g_lines, (std::vector<std::string>{"options map values: ", "key=a  val=1",
                                               "key=e  val=(null)"}));
}

}  // namespace
