#include "service/receipt_worker.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>

#include "document/generated_pdf_test_util.h"
#include "kit/test_support.h"
#include "service/service_test_harness.h"

namespace {

using lm_test::fixture;

// A PDF whose page tree is empty.
LMData zeroPagePdf() {
  const std::string pdf =
      "%PDF-1.4\n1 0 obj <</Type /Catalog /Pages 2 0 R>> endobj\n"
      "2 0 obj <</Type /Pages /Kids [] /Count 0>> endobj\n"
      "trailer <</Root 1 0 R>>\n%%EOF\n";
  return LMData(pdf.begin(), pdf.end());
}

class QuietLog : public testing::Test {
 protected:
  LMLogCapture log_;
};

using ReceiptWorkerTest = QuietLog;
using WorkerRuntimeTest = QuietLog;

// The sample's whole result is pinned by the command-line golden test; here
// only what a task without options defaults to.
TEST_F(ReceiptWorkerTest, ATaskWithoutOptionsHasNoRates) {
  const LMXPCReply reply = lmPerformReceiptTask(LMDictionary{{u"data", fixture("sample-receipt.pdf")}});
  ASSERT_TRUE(reply.result);
  EXPECT_EQ(LMValue(LMArray()), reply.result->at(u"taxes"));
  EXPECT_EQ(u"1", reply.result->at(u"tax").toString());  // no rates: the amount beside "MwSt" wins
}

TEST_F(ReceiptWorkerTest, TaxRatesAndCurrencyReachTheAnalysis) {
  const LMXPCReply reply = lmPerformReceiptTask(LMDictionary{
      {u"data", fixture("sample-receipt.pdf")}, {u"currency", u"CHF"}, {u"taxes", LMArray{7}}});
  ASSERT_TRUE(reply.result);
  const LMDictionary& result = *reply.result->asDictionary();
  EXPECT_EQ(u"1", result.at(u"tax").toString());
  EXPECT_EQ(u"EUR", result.at(u"currency").toString());  // found beats the default
  EXPECT_EQ(LMValue(LMArray{7}), result.at(u"taxes"));
}

TEST_F(ReceiptWorkerTest, FailuresAreErrorReplies) {
  struct Case {
    const char* name;
    LMDictionary task;
    std::u16string message;
  } cases[] = {
      {"no data", LMDictionary{}, u"data required"},
      {"null data", LMDictionary{{u"data", LMValue::null()}}, u"data required"},
      {"empty data", LMDictionary{{u"data", LMData{}}}, u"Could not open document"},
      {"garbage", LMDictionary{{u"data", fixture("pdf/garbage.pdf")}}, u"Could not open document"},
      {"text as data", LMDictionary{{u"data", u"%PDF-1.4"}},
       u"data must be the bytes of a PDF file"},
      {"taxes as text", LMDictionary{{u"data", fixture("sample-receipt.pdf")}, {u"taxes", u"19"}},
       u"taxes must be an array of numbers"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const LMXPCReply reply = lmPerformReceiptTask(c.task);
    ASSERT_TRUE(reply.error);
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(c.message, reply.error->message);
    EXPECT_EQ(101, reply.error->code);
    EXPECT_EQ(u"com.brightmoor.error", reply.error->domain);
  }
}

TEST_F(ReceiptWorkerTest, PagesWithoutTextAndDocumentsWithoutPages) {
  const LMXPCReply noText = lmPerformReceiptTask(LMDictionary{{u"data", fixture("pdf/no_text.pdf")}});
  ASSERT_TRUE(noText.result);
  const LMArray& pages = *noText.result->at(u"pages").asArray();
  ASSERT_EQ(1u, pages.size());
  EXPECT_EQ(LMValue(LMAttributedString()), pages[0]);
  EXPECT_TRUE(noText.result->at(u"gross").isNull());

  const LMXPCReply empty = lmPerformReceiptTask(LMDictionary{{u"data", zeroPagePdf()}});
  ASSERT_TRUE(empty.result) << std::string(empty.error->message.begin(), empty.error->message.end());
  EXPECT_EQ(LMValue(LMArray()), empty.result->at(u"pages"));
}

LMXPCReply performWith(const LMData& pdf, const LMAnalysisLimits& limits,
                       std::shared_ptr<LMCancellation> cancellation = nullptr) {
  LMXPCWorker worker;
  worker.setLimits(limits);
  worker.setCancellation(std::move(cancellation));
  LMXPCReply reply;
  worker.performWithObject(LMDictionary{{u"data", pdf}}, [&](LMXPCReply r) { reply = std::move(r); });
  return reply;
}

TEST_F(ReceiptWorkerTest, DocumentsBeyondTheLimitsGetAnErrorNamingTheBound) {
  const std::string amounts = lmGeneratedLines(3000, "EUR 12,34", 0.5, 0.2);
  LMAnalysisLimits fewElements;
  fewElements.maxDocumentElements = 100;
  LMAnalysisLimits smallFiles;
  smallFiles.maxPdfBytes = 1u << 20;
  struct Case {
    const char* name;
    LMData pdf;
    LMAnalysisLimits limits;
    std::u16string message;
  } cases[] = {
      // 3,000 amounts and currency mentions on one page of a few KB.
      {"crowded page", lmGeneratedPdf({amounts}), LMAnalysisLimits(),
       u"Document too large: more than 2000 found elements on page 1"},
      {"found elements in the document",
       lmGeneratedPdf({lmGeneratedLines(40, "12,34 EUR", 8, 12)}, 3), fewElements,
       u"Document too large: more than 100 found elements in the document"},
      {"pages", lmGeneratedPdf({"BT ET"}, 5001), LMAnalysisLimits(),
       u"Document too large: more than 5000 pages"},
      {"characters on a page", lmGeneratedPdf({lmGeneratedLines(120000, "a", 0.002, 0.003)}),
       LMAnalysisLimits(), u"Document too large: more than 200000 characters on page 1"},
      {"bytes", lmGeneratedPdf({amounts + std::string(1u << 20, ' ')}), smallFiles,
       u"Document too large: more than 1 MB of PDF"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const LMXPCReply reply = performWith(c.pdf, c.limits);
    ASSERT_TRUE(reply.error);
    EXPECT_FALSE(reply.result);
    EXPECT_EQ(c.message, reply.error->message);
  }
  // Within the bounds the same shapes are analysed.
  const LMXPCReply within = performWith(lmGeneratedPdf({lmGeneratedLines(40, "12,34 EUR", 8, 12)}, 2),
                                        LMAnalysisLimits());
  ASSERT_TRUE(within.result);
  EXPECT_EQ(160u, within.result->at(u"numbers").len() + within.result->at(u"currencies").len());
}

TEST_F(ReceiptWorkerTest, ACancelledCallRepliesTheCancellationsMessage) {
  auto cancellation = std::make_shared<LMCancellation>();
  cancellation->cancel(u"Time limit exceeded");
  const LMXPCReply reply = performWith(fixture("sample-receipt.pdf"), LMAnalysisLimits(), cancellation);
  ASSERT_TRUE(reply.error);
  EXPECT_EQ(u"Time limit exceeded", reply.error->message);

  // Raised from another thread while the analysis runs: the call stops
  // early, or it finished first.
  auto late = std::make_shared<LMCancellation>();
  std::thread raiser([late] { late->cancel(u"Client went away"); });
  const LMXPCReply raced =
      performWith(lmGeneratedPdf({lmGeneratedLines(40, "12,34 EUR", 8, 12)}, 200), LMAnalysisLimits(), late);
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

TEST_F(WorkerRuntimeTest, BootRequestSkipsWork) {
  LMXPCBaseWorker base;
  const LMXPCReply reply = perform(base, LMDictionary{{u"__boot", LMValue::null()}});
  ASSERT_TRUE(reply.result);
  EXPECT_EQ(LMValue(LMDictionary{{u"boot", u"success"}}), *reply.result);
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
