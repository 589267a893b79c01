// What the library exports by name: loading, factories, instance ids, files, utilities.
#include <gtest/gtest.h>

#include <fstream>
#include <set>

#include "host_system.h"
#include "library.h"

namespace {

namespace fs = std::filesystem;

TEST(ContractExports, LoadingAndInfoPrintTwoLines) {
  const std::string& greeting = lib().greeting;
  EXPECT_EQ(count_of(greeting, "\n"), 2u);
  testing::internal::CaptureStdout();
  const int last = lib().info();
  const std::string info = testing::internal::GetCapturedStdout();
  EXPECT_EQ(count_of(info, "\n"), 2u);
  const std::size_t first = info.find('\n') + 1;
  EXPECT_EQ(info.substr(0, first), greeting.substr(0, first));
  EXPECT_EQ(static_cast<std::size_t>(last), info.size() - first);
  EXPECT_EQ(lib().version(), 1);
}

TEST(ContractExports, IdsGrowAndComeBackOnlyOnRequest) {
  index_ptr a(lib().instance(3)), b(lib().create(3));
  EXPECT_EQ(b->getId(), a->getId() + 1);
  const u32 kept = b->getId();
  b.reset();
  for (const int refused : {0, -1, std::numeric_limits<int>::min(), (1 << 20) + 1})
    EXPECT_EQ(lib().instance(refused), nullptr) << refused;
  index_ptr c(lib().on_disk(1, "", nullptr));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->getId(), kept + 5) << "each refused creation uses up an id";
  c->validateParameters(0);
  const u32 freed = c->getId();
  c.reset();
  EXPECT_EQ(index_ptr(lib().instance(3))->getId(), freed);
  EXPECT_EQ(index_ptr(lib().instance(1 << 20))->getId(), freed + 1) << "was kept";
}

TEST(ContractExports, FilesLieWhereTheHostSays) {
  const temporary_directory home, base;
  {
    const host_system::user_folder users(home.path());
    const fs::path file = users.path() / "nimbra-korvex/0/nimbra-korvex.korvex";
    index_ptr index(lib().on_disk(dimension, nullptr, nullptr));
    ASSERT_NE(index, nullptr);
    EXPECT_TRUE(fs::exists(file));
    index->destroyIndexOnDelete(1);
    index.reset();
    EXPECT_FALSE(fs::exists(file));
  }
  const std::string blocked = (base.path() / "file").string();
  std::ofstream(blocked) << "x";
  EXPECT_EQ(lib().on_disk(dimension, blocked.c_str(), "a"), nullptr);
  EXPECT_EQ(lib().on_disk(dimension, base.name().c_str(), "a/b"), nullptr);
  EXPECT_EQ(lib().create_on_disk(0, base.name().c_str(), "a"), nullptr);
  index_ptr index(lib().create_on_disk(dimension, base.name().c_str(), "pictures"));
  ASSERT_NE(index, nullptr);
  const fs::path directory = base.path() / "nimbra-korvex/0";
  EXPECT_TRUE(fs::exists(directory / "pictures.korvex"));
  EXPECT_EQ(lib().on_disk(dimension, base.name().c_str(), "pictures"), nullptr) << "is in use";
}

TEST(ContractExports, AnIndexOnDiskComesBackUntilItIsGivenUp) {
  const temporary_directory base;
  const auto rows = random_vectors(50, 1);
  const auto open = [&](int d) { return index_ptr(lib().on_disk(d, base.name().c_str(), "")); };
  const auto finds = [&](Korvex* index, u32 id) {
    query_ptr query(index->createQuerySession(50, 1));
    return query->query(row(rows, id), 0, 1) == 0 && ids_of(query.get()) == std::vector<u32>{id};
  };
  index_ptr index = open(dimension);
  index->enableDiskCache(1 << 20);
  index->addVectors(rows.data(), 40, 0);
  index->destroyIndexOnDelete(1);
  index->destroyIndexOnDelete(0);  // taken back: the files stay
  index->syncToDisk(0);
  index->syncToDisk(3600);
  EXPECT_TRUE(finds(index.get(), 17));
  index.reset();

  EXPECT_EQ(open(dimension + 1), nullptr);
  index = open(dimension);
  ASSERT_NE(index, nullptr);
  EXPECT_EQ(index->addVectors(row(rows, 40), 10, 0), 40u | u64{49} << 32);
  EXPECT_TRUE(finds(index.get(), 17));
  EXPECT_TRUE(finds(index.get(), 45));
  const std::string text = log_of([&] {
    index->destroyIndexOnDelete(1);
    index.reset();
  });
  const fs::path directory = base.path() / "nimbra-korvex/0";
  EXPECT_EQ(count_of(text, "deleting index files in " + base.name()), 1u) << text;
  EXPECT_TRUE(fs::is_empty(directory));
}

TEST(ContractExports, UtilitiesAreOneObject) {
  KorvexUtils* const utils = lib().utils();
  ASSERT_NE(utils, nullptr);
  EXPECT_EQ(lib().create_utils(), utils);
  std::set<u64> drawn;
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(utils->getRandom32Max(0), 0u);
    EXPECT_LE(utils->getRandom32Max(6), 6u);
    const double real = utils->getRandom();
    EXPECT_TRUE(real >= 0 && real < 1);
    drawn.insert(utils->getRandom64());
    drawn.insert(utils->getRandom32());
  }
  EXPECT_GT(drawn.size(), 1990u);
  const std::string text = log_of([&] {
    utils->printMemoryUsage("contract memory", 7);
    utils->printMemoryUsage(nullptr, 0);
  });
  EXPECT_EQ(count_of(text, "contract memory\n"), 1u);
  EXPECT_EQ(count_of(text, "peak resident"), 2u);

  const temporary_directory files;
  for (const char* name : {"a.kind", "b.kind", "c.other"}) std::ofstream(files.path() / name);
  EXPECT_EQ(utils->deleteFiles(files.name().c_str(), 1, "kind", 3), 2);
  EXPECT_EQ(utils->deleteFiles(files.name().c_str(), 0, "kind", 0), 0);
  EXPECT_TRUE(fs::exists(files.path() / "c.other"));
}

}  // namespace
