#include "service/xpc_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "service/keyed_archive.h"
#include "kit/test_support.h"

namespace {

// Stands in for the wire: decodes each request, answers through `answer`.
class FakeService {
 public:
  using Answer = std::function<std::optional<LMWireReply>(const LMValue& request,
                                                          std::string* failure)>;

  explicit FakeService(Answer answer = {}) : answer_(std::move(answer)) {}

  static LMWireReply archived(const LMValue& value) {
    return LMWireReply{lxDataSerialize(value).value_or(std::vector<uint8_t>()), std::nullopt};
  }

  LMXPC::Transport transport() {
    return [this](std::string_view name, std::span<const uint8_t> bytes, std::string* failure,
                  LMDeadline) {
      return call(name, bytes, failure);
    };
  }

  std::vector<LMValue> requests() {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }
  int mostInFlight() const { return mostInFlight_.load(); }

 private:
  std::optional<LMWireReply> call(std::string_view name, std::span<const uint8_t> bytes,
                                  std::string* failure) {
    EXPECT_EQ("test-service", name);
    const int now = ++inFlight_;
    mostInFlight_ = std::max(mostInFlight_.load(), now);
    LMValue request = lxDataUnserialize(bytes).value_or(LMValue());
    {
      std::lock_guard<std::mutex> lock(mutex_);
      requests_.push_back(request);
    }
    std::optional<LMWireReply> reply;
    const LMDictionary* task = request.asDictionary();
    if (task && task->contains(u"__boot")) {
      reply = archived(LMDictionary{{u"boot", u"success"}});
    } else if (answer_) {
      reply = answer_(request, failure);
    } else {
      reply = archived(LMDictionary{{u"echo", request}});
    }
    --inFlight_;
    return reply;
  }

  Answer answer_;
  std::mutex mutex_;
  std::vector<LMValue> requests_;
  std::atomic<int> inFlight_{0};
  std::atomic<int> mostInFlight_{0};
};

using XPCClientTest = LMQuietTest;

// Each reply through the closure and, without one, as the returned value
// (nil for a failure, which is logged).
TEST_F(XPCClientTest, RepliesBecomeResultOrErrorOrALoggedNil) {
  const std::string kFailed = "Error while executing XPC task occured: ";
  struct Case {
    const char* name;
    std::optional<LMWireReply> reply;
    std::string failure;
    LMValue result;
    std::optional<std::u16string> error;
    std::vector<std::string> logs = {};
    int throws = 0;  // the transport throws: 1 an exception, 2 something else
  } cases[] = {
      {"result", FakeService::archived(LMDictionary{{u"gross", u"15.30"}}), "",
       LMDictionary{{u"gross", u"15.30"}}, std::nullopt},
      {"no bytes", LMWireReply{}, "", LMValue(), std::nullopt,
       {"(operation->error()) failed assertion", kFailed + "(null)"}},
      {"undecodable bytes", LMWireReply{{'n', 'o', 'p', 'e'}, std::nullopt}, "", LMValue(),
       std::nullopt, {"lxDataUnserialize: "}},
      {"error reply",
       LMWireReply{{}, LMXPCError{kLMErrorDomain, kLMErrorCode, u"Could not open document"}},
       "", LMValue(), u"Could not open document",
       {kFailed + "Error Domain=com.brightmoor.error Code=101 \"Could not open document\""}},
      {"error without message", LMWireReply{{}, LMXPCError{}}, "", LMValue(), u"",
       {kFailed + "Error Domain=com.brightmoor.error Code=101 \"(null)\""}},
      {"no reply", std::nullopt, "The service closed the connection without a reply",
       LMValue(), u"Service not reachable: The service closed the connection without a reply"},
      {"no reply, no reason", std::nullopt, "", LMValue(), u"Service not reachable: no reply"},
      // A transport that throws is a failed call, not a caller waiting forever.
      {"transport throws", std::nullopt, "", LMValue(), u"Service not reachable: socket broke", {},
       1},
      {"transport throws a non-exception", std::nullopt, "", LMValue(),
       u"Service not reachable: the call failed", {}, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    log_.clear();
    FakeService service([&](const LMValue&, std::string* failure) {
      if (c.throws == 1) throw std::runtime_error("socket broke");
      if (c.throws == 2) throw 42;
      *failure = c.failure;
      return c.reply;
    });
    LMXPC xpc("test-service", service.transport());
    int calls = 0;
    xpc.performXPCSynchronousWithObject(
        LMDictionary{{u"task", 1}},
        [&](const LMValue& result, const std::optional<LMXPCError>& error) {
          ++calls;
          EXPECT_EQ(c.result, result);
          ASSERT_EQ(c.error.has_value(), error.has_value());
          if (error) {
            EXPECT_EQ(*c.error, error->message);
            EXPECT_EQ(u"com.brightmoor.error", error->domain);
            EXPECT_EQ(101, error->code);
          }
        });
    EXPECT_EQ(1, calls);
    EXPECT_EQ(c.result, xpc.performXPCWithObject(LMDictionary{{u"task", 1}}));
    for (const std::string& line : c.logs) EXPECT_TRUE(log_.contains(line)) << line;
  }
}

TEST_F(XPCClientTest, SynchronousCallWithoutClosureAssertsAndStillCalls) {
  FakeService service;
  {
    LMXPC xpc("test-service", service.transport());
    xpc.performXPCSynchronousWithObject(LMDictionary{{u"task", 2}}, LMXPC::ReplyBlock());
  }
  EXPECT_TRUE(log_.contains("(block) failed assertion"));
  ASSERT_EQ(2u, service.requests().size());
  // The warm-up call goes first.
  EXPECT_EQ(LMValue(LMDictionary{{u"__boot", true}}), service.requests()[0]);
  EXPECT_EQ(LMValue(LMDictionary{{u"task", 2}}), service.requests()[1]);
}

TEST_F(XPCClientTest, CallsFromManyThreadsReachTheServiceOneAtATime) {
  FakeService service([](const LMValue& request, std::string*) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));  // lets overlaps show
    return FakeService::archived(LMDictionary{{u"n", request.at(u"n")}});
  });
  std::vector<int64_t> answers(8, -1);
  {
    LMXPC xpc("test-service", service.transport());
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
      callers.emplace_back([&, i] {
        answers[i] = xpc.performXPCWithObject(LMDictionary{{u"n", i}}).at(u"n").toInt();
      });
    }
    for (std::thread& t : callers) t.join();
  }
  EXPECT_EQ(1, service.mostInFlight());
  EXPECT_EQ(9u, service.requests().size());
  for (int i = 0; i < 8; ++i) EXPECT_EQ(i, answers[i]) << "caller " << i;
}

TEST_F(XPCClientTest, DestroyingTheClientWaitsForQueuedCalls) {
  FakeService service;
  std::vector<std::shared_ptr<LMXPCOperation>> operations;
  {
    LMXPC xpc("test-service", service.transport());
    for (int i = 0; i < 3; ++i) {
      auto operation = std::make_shared<LMXPCOperation>(&xpc);
      operation->setTaskInfo(LMDictionary{{u"n", i}});
      xpc.operationQueue().addOperation(operation);
      operations.push_back(operation);
    }
  }
  EXPECT_EQ(4u, service.requests().size());
  for (const auto& operation : operations) {
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(nullptr, operation->xpcHelper());
    EXPECT_EQ(LMValue(LMDictionary{{u"echo", operation->taskInfo()}}), operation->taskResult());
  }
}

}  // namespace
