#include "service/receipt_worker.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "document/generated_pdf_test_util.h"
#include "kit/test_support.h"
#include "kit/unicode.h"

namespace {

using ReceiptWorkerTest = LMQuietTest;
using WorkerRuntimeTest = LMQuietTest;

// The sample's result, the options and pages without text are pinned by the
// command-line golden test, which goes through the same task.
TEST_F(ReceiptWorkerTest, ADocumentWithoutPagesHasNoPages) {
  const LMDictionary task{{u"data", lmGeneratedPdf({})}};  // a kept task: the copying overload
  const LMXPCReply empty = lmPerformReceiptTask(task);
  ASSERT_TRUE(empty.result) << lmUtf8(empty.error->message);
  EXPECT_EQ(LMValue(LMArray()), empty.result->at(u"pages"));
}

// The one reply of `worker` to `request`.
LMXPCReply perform(LMXPCBaseWorker& worker, LMValue request) {
  LMXPCReply reply;
  int calls = 0;
  worker.performWithObject(std::move(request), [&](LMXPCReply r) {
    reply = std::move(r);
    ++calls;
  });
  EXPECT_EQ(1, calls);
  return reply;
}

// The reply of a worker with `limits` (and `cancellation`) to `task`.
LMXPCReply performWith(LMDictionary task, const LMAnalysisLimits& limits = {},
                       std::shared_ptr<LMCancellation> cancellation = nullptr) {
  LMXPCWorker worker;
  worker.setLimits(limits);
  worker.setCancellation(std::move(cancellation));
  return perform(worker, std::move(task));
}

TEST_F(ReceiptWorkerTest, BadTasksAndDocumentsBeyondTheLimitsGetAnErrorReply) {
  const std::string amounts = lmGeneratedLines(3000, "EUR 12,34", 0.5, 0.2);
  struct Case {
    const char* name;
    LMDictionary task;
    LMAnalysisLimits limits;
    std::u16string message;
  } cases[] = {
      // Garbage and empty files are the command-line golden test's; the error's
      // domain and code are checked on the wire by the service's process tests.
      {"no data", {}, {}, u"data required"},
      {"null data", {{u"data", LMValue::null()}}, {}, u"data required"},
      {"text as data", {{u"data", u"%PDF-1.4"}}, {}, u"data must be the bytes of a PDF file"},
      {"taxes as text", {{u"data", lmTestdataBytes("sample-receipt.pdf")}, {u"taxes", u"19"}}, {},
       u"taxes must be an array of numbers"},
      // 3,000 amounts and currency mentions on one page of a few KB.
      {"crowded page", {{u"data", lmGeneratedPdf({amounts})}}, {},
       u"Document too large: more than 2000 found elements on page 1"},
      {"found elements in the document",
       {{u"data", lmGeneratedPdf({lmGeneratedLines(40, "12,34 EUR", 8, 12)}, 3)}}, {.maxDocumentElements = 100},
       u"Document too large: more than 100 found elements in the document"},
      {"pages", {{u"data", lmGeneratedPdf({"BT ET"}, 5001)}}, {},
       u"Document too large: more than 5000 pages"},
      {"bytes", {{u"data", lmGeneratedPdf({amounts + std::string(1u << 20, ' ')})}}, {.maxPdfBytes = 1u << 20},
       u"Document too large: more than 1 MB of PDF"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const LMXPCReply reply = performWith(c.task, c.limits);
    ASSERT_TRUE(reply.error);
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(c.message, reply.error->message);
  }
  // Within the bounds the same shapes are analysed.
  const LMXPCReply within =
      performWith({{u"data", lmGeneratedPdf({lmGeneratedLines(40, "12,34 EUR", 8, 12)}, 2)}});
  ASSERT_TRUE(within.result);
  EXPECT_EQ(160u, within.result->at(u"numbers").len() + within.result->at(u"currencies").len());
}

TEST_F(ReceiptWorkerTest, ACancelledCallRepliesTheCancellationsMessage) {
  auto cancellation = std::make_shared<LMCancellation>();
  cancellation->cancel(u"Time limit exceeded");
  const LMXPCReply reply = performWith({{u"data", lmTestdataBytes("sample-receipt.pdf")}}, {}, cancellation);
  ASSERT_TRUE(reply.error);
  EXPECT_EQ(u"Time limit exceeded", reply.error->message);

  // Raised from another thread while the analysis runs: the call stops
  // early, or it finished first.
  auto late = std::make_shared<LMCancellation>();
  std::thread raiser([late] { late->cancel(u"Client went away"); });
  const LMXPCReply raced =
      performWith({{u"data", lmGeneratedPdf({lmGeneratedLines(40, "12,34 EUR", 8, 12)}, 200)}}, {}, late);
  raiser.join();
  EXPECT_TRUE(raced.result || raced.error->message == u"Client went away");
}

class NoReplyWorker : public LMXPCBaseWorker {
  void work() override {}
};

class ThrowingWorker : public LMXPCBaseWorker {
  void work() override { throw std::runtime_error("parser broke"); }
};

class SilentErrorWorker : public LMXPCBaseWorker {
  void work() override { doneWithErrorMessage(u""); }
};

TEST_F(WorkerRuntimeTest, ExactlyOneReplyForEveryKindOfWork) {
  LMXPCBaseWorker base;
  EXPECT_EQ(u"You have to implement `work`!", perform(base, LMDictionary{}).error->message);
  NoReplyWorker silent;
  EXPECT_EQ(u"You have to call `doneWithResult` or `doneWithErrorMessage` at least once!",
            perform(silent, LMDictionary{}).error->message);
  ThrowingWorker throwing;
  EXPECT_EQ(u"parser broke", perform(throwing, LMDictionary{}).error->message);
  SilentErrorWorker empty;
  const LMXPCReply reply = perform(empty, LMDictionary{});
  ASSERT_TRUE(reply.error);
  EXPECT_EQ(u"", reply.error->message);
}

TEST_F(WorkerRuntimeTest, LogsNumberedCallsAndErrors) {
  LMXPCBaseWorker base;
  perform(base, LMValue());
  perform(base, LMValue());
  const std::vector<std::string> log = log_.fullLines();
  ASSERT_GE(log.size(), 6u);
  auto number = [](const std::string& line) { return std::stoul(line.substr(line.rfind('#') + 1)); };
  EXPECT_NE(std::string::npos, log[0].find("==> XPC work on task "));
  EXPECT_NE(std::string::npos, log[1].find("!!! XPC Error: You have to implement `work`!"));
  EXPECT_NE(std::string::npos, log[2].find("<== XPC finished successfully task "));
  EXPECT_EQ(number(log[0]) + 1, number(log[3]));
}

}  // namespace
