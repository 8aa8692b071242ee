#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "integration/collector_process.h"
#include "integration/postgres_server.h"
#include "integration/track_requests.h"

// Several collector processes on one PostgreSQL database, as behind a load balancer: whatever process a
// block reaches, and however many of them it reaches, it is stored once, and what any of them
// acknowledged is there after another one dies.
namespace verdalune::sessionreplay::testing {
namespace {

constexpr int kClients = 20;
constexpr int kBlocksPerClient = 12;
constexpr int kEventsPerBlock = 3;

// One client's blocks: device "client-C", session 1, sequence numbers from 0, each holding events whose
// timestamps run backwards within the block, so that the served order is the store's doing.
struct Block {
  std::string query, body;
  std::vector<std::string> json;  // the texts the collector must keep, in timestamp order
};

Block blockOf(int client, int sequence) {
  Block block{.query = trackQuery("client-" + std::to_string(client), 1, sequence), .body = {}, .json = {}};
  std::vector<std::string> literals;
  for (int event = kEventsPerBlock - 1; event >= 0; --event) {
    const auto packed =
        pack(customEvent(1000 * sequence + event, std::to_string(client) + "." + std::to_string(sequence) +
                                                      "." + std::to_string(event)));
    literals.push_back(packed.literal);
    block.json.insert(block.json.begin(), packed.json);
  }
  block.body = trackBody(literals);
  return block;
}

// The status and body of one upload; status 0 when no answer came (the collector died, say).
std::pair<int, std::string> upload(const CollectorProcess& collector, const Block& block) {
  httplib::Client client(collector.baseUrl());
  client.set_read_timeout(std::chrono::seconds(30));
  client.set_url_encode(false);
  const auto result = client.Post("/sessions/v2/track?" + block.query,
                                  {{"Authorization", "Bearer test-key"}, {"X-Client-Platform", "ios"}},
                                  block.body, "application/json");
  if (!result) return {0, httplib::to_string(result.error())};
  return {result->status, result->body};
}

// Two collectors on a fresh database, started at once, so that both make the schema at the same time.
std::pair<std::unique_ptr<CollectorProcess>, std::unique_ptr<CollectorProcess>> startTwo() {
  PostgresServer* server = PostgresServer::shared();
  if (!server) return {};
  const std::string database = server->createDatabase();
  // Every client here comes from 127.0.0.1, as every request comes from the balancer's address behind
  // a load balancer: the limit per client address must allow them all.
  auto startOne = [&] {
    return CollectorProcess::start(
        {.arguments = {"--max-connections-per-client", "64"}, .database = database});
  };
  auto first = std::async(std::launch::async, startOne);
  auto second = std::async(std::launch::async, startOne);
  return {first.get(), second.get()};
}

// Every client's blocks, read back through `collector`, hold exactly `acknowledged`'s events in
// timestamp order: none lost, none twice.
void expectStoredOnce(const CollectorProcess& collector, const std::vector<std::vector<bool>>& acknowledged) {
  for (int client = 0; client < kClients; ++client) {
    std::vector<std::string> expected;
    for (int sequence = 0; sequence < kBlocksPerClient; ++sequence) {
      if (!acknowledged[client][sequence]) continue;
      const auto json = blockOf(client, sequence).json;
      expected.insert(expected.end(), json.begin(), json.end());
    }
    EXPECT_EQ(collector.sessionEvents("client-" + std::to_string(client), 1), expected)
        << "client " << client;
  }
}

// kClients threads at once, each uploading its blocks in order through `send`, which answers whether the
// block was acknowledged; the uploads that were not, as "query: status body", once all are done.
using Send = std::function<bool(int client, int sequence, const Block& block, std::string& failure)>;
class Clients {
 public:
  explicit Clients(const Send& send) {
    for (int client = 0; client < kClients; ++client) {
      threads_.emplace_back([this, send, client] {
        for (int sequence = 0; sequence < kBlocksPerClient; ++sequence) {
          const Block block = blockOf(client, sequence);
          std::string failure;
          if (send(client, sequence, block, failure)) continue;
          std::lock_guard lock(mutex_);
          failures_.push_back(block.query + ": " + failure);
        }
      });
    }
  }
  ~Clients() { (void)failures(); }
  Clients(const Clients&) = delete;
  Clients& operator=(const Clients&) = delete;

  std::vector<std::string> failures() {
    for (auto& thread : threads_) thread.join();
    threads_.clear();
    return failures_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> failures_;  // guarded by mutex_
  std::vector<std::thread> threads_;
};

std::string describe(const std::pair<int, std::string>& answer) {
  return std::to_string(answer.first) + " " + answer.second;
}

TEST(CollectorScaling, TwoProcessesStoreEachBlockOnceWhicheverAndHoweverManyOfThemItReaches) {
  auto [first, second] = startTwo();
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);

  // Every third block goes to both collectors at the same moment, as a client that timed out on one
  // and retried on the other might: one of them stores it, the other finds it stored.
  std::atomic<int> storedAnswers = 0, alreadyAnswers = 0;
  Clients clients([&](int client, int sequence, const Block& block, std::string& failure) {
    const CollectorProcess& target = (client + sequence) % 2 ? *first : *second;
    std::vector<std::future<std::pair<int, std::string>>> answers;
    answers.push_back(std::async(std::launch::async, [&] { return upload(target, block); }));
    if (sequence % 3 == 0) {
      const CollectorProcess& other = &target == first.get() ? *second : *first;
      answers.push_back(std::async(std::launch::async, [&] { return upload(other, block); }));
    }
    for (auto& future : answers) {
      const auto answer = future.get();
      if (answer == std::pair{200, std::string(R"({"events":3,"stored":true})")}) {
        ++storedAnswers;
      } else if (answer == std::pair{200, std::string(R"({"events":3,"stored":false})")}) {
        ++alreadyAnswers;
      } else {
        failure += describe(answer);
      }
    }
    return failure.empty();
  });
  EXPECT_THAT(clients.failures(), ::testing::IsEmpty());
  EXPECT_EQ(storedAnswers, kClients * kBlocksPerClient);
  EXPECT_EQ(alreadyAnswers, kClients * ((kBlocksPerClient + 2) / 3));
  const std::vector<std::vector<bool>> all(kClients, std::vector<bool>(kBlocksPerClient, true));
  expectStoredOnce(*first, all);
  expectStoredOnce(*second, all);
}

TEST(CollectorScaling, AKilledProcessLosesNothingItAcknowledged) {
  auto [doomed, survivor] = startTwo();
  ASSERT_NE(doomed, nullptr);
  ASSERT_NE(survivor, nullptr);

  // Clients alternate between the two, and after an upload without an answer resend the block to the
  // survivor, as a load balancer would send them on. The doomed collector is killed once a third of the
  // blocks are acknowledged, while uploads to it are in flight.
  std::atomic<int> acknowledgedCount = 0;
  std::atomic<bool> killed = false;
  std::vector<std::vector<bool>> acknowledged(kClients, std::vector<bool>(kBlocksPerClient, false));
  Clients clients([&](int client, int sequence, const Block& block, std::string& failure) {
    const bool toDoomed = (client + sequence) % 2 == 0 && !killed;
    auto answer = upload(toDoomed ? *doomed : *survivor, block);
    if (answer.first == 0 && toDoomed) answer = upload(*survivor, block);
    if (answer.first != 200) {
      failure = describe(answer);
      return false;
    }
    acknowledged[client][sequence] = true;
    ++acknowledgedCount;
    return true;
  });
  for (const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
       acknowledgedCount < kClients * kBlocksPerClient / 3 && std::chrono::steady_clock::now() < deadline;)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  doomed->kill();
  killed = true;

  // A block whose upload died with the collector was resent, and is there once, however far the dead
  // collector had come with it.
  EXPECT_THAT(clients.failures(), ::testing::IsEmpty());
  expectStoredOnce(*survivor, acknowledged);
}

}  // namespace
}  // namespace verdalune::sessionreplay::testing
