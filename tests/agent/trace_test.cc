// SPDX-License-Identifier: Apache-2.0
// What a trace is made of: records of several processes, messages, and conditions about them.
#include "trace/trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "temp_folder.h"
#include "trace/capture.h"
#include "trace/condition.h"
#include "trace/messages.h"
#include "trace/words.h"
#include "unique_fd.h"

namespace {

using nlohmann::json;
using sim::Condition;
using sim::Expectation;
using sim::Fields;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;

std::vector<Fields> RecordsIn(const std::string& file) {
  std::vector<Fields> records;
  std::ifstream stream(file, std::ios::binary);
  for (std::string line; std::getline(stream, line);) {
    records.push_back(Fields::parse(line, nullptr, false));
    EXPECT_TRUE(records.back().is_object()) << line.substr(0, 200);
  }
  return records;
}

/** A trace into a file of its own. */
class ATrace : public testing::Test {
 protected:
  void Open(sim::TraceFormat format) {
    fd_.Reset(open(file_.c_str(), kAppend, 0600));
    sim::OpenTrace({{fd_.get(), format}});
  }
  void TearDown() override { sim::OpenTrace({}); }

  std::string Content() const {
    std::ifstream stream(file_, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }

  const TempFolder folder_;
  const std::string file_ = folder_.path() + "/trace";
  base::UniqueFd fd_;
};

TEST_F(ATrace, BeginsEachRecordWithItsTimesAndWhatItIs) {
  Open(sim::TraceFormat::kLines);
  sim::Trace("step", {{"step", "wait"}, {"milliseconds", 5}});
  sim::Trace("full");
  EXPECT_THAT(Content(),
              testing::MatchesRegex(R"(\{"time":"[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9:]{8}\.[0-9]{6}Z",)"
                                    R"("monotonic":[0-9]+\.[0-9]{6},"what":"step","step":"wait",)"
                                    R"("milliseconds":5\}
\{"time":"[^"]*","monotonic":[0-9.]*,"what":"full"\}
)"));
}

TEST_F(ATrace, GoesOnInALineOfItsOwnBehindARecordWhoseWriterWasKilledInIt) {
  Open(sim::TraceFormat::kLines);
  sim::Trace("step");
  ASSERT_EQ(write(fd_.get(), R"({"what":"ans)", 12), 12);
  sim::EndTornRecord();
  sim::EndTornRecord();
  sim::Trace("end");
  std::ifstream stream(file_, std::ios::binary);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[1], R"({"what":"ans)");
  EXPECT_EQ(Fields::parse(lines[2])["what"], "end");
}

TEST_F(ATrace, KeepsTheLinesOfSeveralProcessesWholeAndInOrder) {
  Open(sim::TraceFormat::kLines);
  constexpr int kProcesses = 6;
  constexpr int kRecords = 200;
  const std::string text(20000, 'x');
  for (int process = 0; process < kProcesses; ++process) {
    if (fork() != 0) continue;
    for (int i = 0; i < kRecords; ++i) sim::Trace("step", {{"by", process}, {"n", i}, {"t", text}});
    _exit(0);
  }
  int status = 0;
  while (wait(&status) > 0) EXPECT_EQ(status, 0);
  const auto records = RecordsIn(file_);
  ASSERT_EQ(records.size(), std::size_t{kProcesses} * kRecords);
  std::vector<int> next(kProcesses, 0);
  double last = 0;
  for (const Fields& record : records) {
    EXPECT_EQ(record["n"], next[record["by"]]++);
    EXPECT_EQ(record["t"], text);
    EXPECT_GE(record["monotonic"], last);
    last = record["monotonic"];
  }
}

TEST_F(ATrace, OfAWorldEndsWhenItIsFull) {
  Open(sim::TraceFormat::kWorld);
  const off_t nearly = sim::kMostTraceBytes - 1;
  ASSERT_EQ(ftruncate(fd_.get(), nearly), 0);
  for (int i = 0; i < 3; ++i) sim::Trace("step", {{"n", i}});
  std::ifstream stream(file_, std::ios::binary);
  stream.seekg(nearly);
  std::string line;
  std::getline(stream, line);
  EXPECT_EQ(json::parse(line)["n"], 0);
  std::getline(stream, line);
  EXPECT_EQ(json::parse(line)["what"], "full");
  EXPECT_FALSE(std::getline(stream, line)) << line;
}

TEST_F(ATrace, TakesTextsThatAreNotUtf8) {
  Open(sim::TraceFormat::kLines);
  sim::Trace("step", {{"t", "a\xff\nb"}});
  ASSERT_EQ(RecordsIn(file_).size(), 1u);
  EXPECT_EQ(RecordsIn(file_)[0]["t"], "a\xef\xbf\xbd\nb");
}

TEST_F(ATrace, InWordsHasOneShortSafeLineForEachRecord) {
  Open(sim::TraceFormat::kWords);
  sim::Trace("refuse", {{"app", "evil\x1b[31m\n"}});
  sim::Trace("request",
             {{"client", 3},
              {"method", "RequestToUpdate"},
              {"arguments",
               {{"models", json(std::vector<json>(
                               500, json{{"id", std::string(900, 'm')}, {"title", ""}}))}}}});
  const std::string content = Content();
  EXPECT_THAT(content, testing::ContainsRegex("^[0-9:.]{15}  evil\\\\x1B\\[31m\\\\n is refused\n"));
  EXPECT_THAT(content, HasSubstr("client 3 asks RequestToUpdate: models mmm"));
  EXPECT_THAT(content, HasSubstr("and 492 more\n"));
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 2);
  EXPECT_LT(content.size(), 2000u);
}

TEST_F(ATrace, KnowsTheLastNumberOfAClient) {
  EXPECT_EQ(sim::LastClientIn(file_), 0) << "there is no such file";
  Open(sim::TraceFormat::kWorld);
  sim::Trace("connect", {{"client", 1}});
  sim::Trace("connect", {{"client", 2}});
  sim::Trace("disconnect", {{"client", 1}});
  EXPECT_EQ(sim::LastClientIn(file_), 2);
}

std::uint32_t Little(const std::string& bytes, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 4; i-- > 0;)
    value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
  return value;
}

/** The blocks of a file, without their lengths in front and behind, which must agree. */
std::vector<std::pair<std::uint32_t, std::string>> BlocksOf(const std::string& file) {
  std::vector<std::pair<std::uint32_t, std::string>> blocks;
  for (std::size_t at = 0; at < file.size();) {
    const std::uint32_t length = Little(file, at + 4);
    EXPECT_EQ(length % 4, 0u);
    EXPECT_EQ(Little(file, at + length - 4), length);
    blocks.emplace_back(Little(file, at), file.substr(at + 8, length - 12));
    at += length;
  }
  return blocks;
}

constexpr char kTags[] = "\0\x0c\0\x10velmora_svcmgr\0\0\0\0\0\0";
const std::string kFront(kTags, sizeof kTags - 1);

TEST(ACapture, IsAFileWithOneInterfaceOfUpperPdus) {
  const auto blocks = BlocksOf(sim::CaptureHeader());
  ASSERT_EQ(blocks.size(), 2u);
  EXPECT_EQ(blocks[0].first, 0x0a0d0d0au);
  EXPECT_EQ(Little(blocks[0].second, 0), 0x1a2b3c4du);
  EXPECT_EQ(blocks[1].first, 1u);
  EXPECT_EQ(Little(blocks[1].second, 0), 252u);
}

TEST(ACapture, HoldsAMessageAsItWasOnTheSocket) {
  sim::Packet packet;
  packet.to_client = true;
  packet.stream = RPC_PORT_PORT_CALLBACK;
  packet.client = 0x01020304;
  const auto blocks = BlocksOf(sim::CaptureBlock(packet, "abcde"));
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_EQ(blocks[0].first, 6u);
  const std::string& body = blocks[0].second;
  const std::string expected = kFront + std::string("\1\1\1\0\4\3\2\1\5\0\0\0abcde", 17);
  EXPECT_EQ(Little(body, 12), expected.size()) << "captured";
  EXPECT_EQ(Little(body, 16), expected.size()) << "on the wire";
  EXPECT_EQ(body.substr(20, expected.size()), expected);
}

TEST(ACapture, HoldsTheBeginningOfWhatIsLongerThanReadersTake) {
  const auto blocks = BlocksOf(sim::CaptureBlock({}, std::string(1 << 20, 'x')));
  ASSERT_EQ(blocks.size(), 1u);
  EXPECT_LE(Little(blocks[0].second, 12), 262144u);
  EXPECT_EQ(Little(blocks[0].second, 16), kFront.size() + 12 + (1 << 20));
}

sim::Parcel Delegated(sim::Method method, int id) {
  sim::Parcel parcel;
  parcel.Int(static_cast<int>(method)).Int(id).Int(7).Flag(true);
  return parcel;
}

Fields Arguments(sim::Parcel& parcel) {
  sim::Parcel sent;
  sent.SetBytes(parcel.Bytes());
  return sim::ArgumentsOf(sim::ReadRequest(sent));
}

TEST(ARequest, HasItsArgumentsByTheirNames) {
  const Fields delegate = {{"id", 4}, {"seq", 7}, {"once", true}};
  const Fields model = {{"id", "i"}, {"version", "v"}, {"title", "t"}, {"description", "d"}};
  sim::Parcel work = Delegated(sim::Method::kRequestToUpdate, 4);
  work.Count(1).Text("i").Text("v").Text("t").Text("d").Int(9);
  EXPECT_EQ(Arguments(work),
            (Fields{{"delegate", delegate}, {"models", Fields::array({model})}, {"count", 9}}));

  sim::Parcel versions = Delegated(sim::Method::kGetModelVersionList, 3);
  versions.Text("i").Text("v").Text("t").Text("d").Text("app").Text("1.0");
  Fields third = delegate;
  third["id"] = 3;
  EXPECT_EQ(
      Arguments(versions),
      (Fields{{"delegate", third}, {"model", model}, {"appId", "app"}, {"appVersion", "1.0"}}));

  sim::Parcel agents;
  agents.Int(10).Count(2).Text("a").Text("b").Int(2);
  EXPECT_EQ(Arguments(agents), (Fields{{"agents", {"a", "b"}}, {"count", 2}}));

  sim::Parcel plain;
  plain.Int(3);
  EXPECT_EQ(Arguments(plain), Fields::object());
}

TEST(AnAnswer, IsReadOnlyWhereItIsWhole) {
  const sim::Delegate delegate = {2, 5, false};
  const sim::Parcel list = sim::AnswerWith(delegate, 0, {{"i", "v", "t", "d"}}, {{}, 3});
  const auto read = sim::AnswerIn(list.Bytes());
  ASSERT_TRUE(read);
  EXPECT_EQ((*read)["method"], "GetUsableModelListWithDesc");
  EXPECT_EQ((*read)["models"][0]["description"], "d");
  EXPECT_EQ((*read)["count"], 3);
  for (std::size_t size = 0; size < list.Bytes().size(); ++size) {
    EXPECT_FALSE(sim::AnswerIn(list.Bytes().substr(0, size))) << size;
  }
  sim::Parcel stray;
  stray.Int(1).Int(99).Int(0).Flag(false).Int(0);
  EXPECT_FALSE(sim::AnswerIn(stray.Bytes())) << "no method has such a delegate";
}

TEST(AReply, IsReadAsTheMethodSays) {
  const sim::Parcel number = sim::ReplyWith(5);
  const sim::Parcel text = sim::ReplyWith(std::string("words"));
  EXPECT_EQ(sim::ReplyIn(number.Bytes(), sim::Method::kGetAgentApiLevel),
            (Fields{{"method", "get_agent_api_level"}, {"result", 5}}));
  EXPECT_EQ(sim::ReplyIn(text.Bytes(), sim::Method::kGetLicense),
            (Fields{{"method", "get_license"}, {"text", "words"}}));
  EXPECT_FALSE(sim::ReplyIn(text.Bytes().substr(0, 6), sim::Method::kGetLicense));
  EXPECT_FALSE(sim::ReplyIn(number.Bytes(), std::nullopt)) << "nobody has asked";
}

TEST(AShape, IsThatOfAllThatHasAtLeastItsMembersAndElements) {
  const json value = json::parse(R"({"a": 1, "l": [{"id": "x", "v": 2}, 3], "n": {"m": "t"}})");
  for (const char* shape : {"{}", R"({"a": 1})", R"({"l": [3]})", R"({"l": [{"id": "x"}]})",
                            R"({"n": {"m": null}})", R"({"l": [{"v": 2}, 3], "a": null})"}) {
    EXPECT_TRUE(sim::HasShape(value, json::parse(shape))) << shape;
  }
  for (const char* shape : {R"({"a": 2})", R"({"b": null})", R"({"l": [4]})", R"({"l": {}})",
                            R"({"l": [{"id": "x", "w": 2}]})", R"({"n": [null]})"}) {
    EXPECT_FALSE(sim::HasShape(value, json::parse(shape))) << shape;
  }
}

/** What an expectation says after these records. */
Expectation::State After(const std::vector<std::string>& conditions,
                         const std::vector<std::string>& records) {
  std::vector<Condition> read;
  for (const std::string& text : conditions) read.push_back(sim::ReadCondition(text));
  Expectation expectation(std::move(read));
  for (const std::string& record : records) expectation.Take(Fields::parse(record));
  return expectation.Look();
}

constexpr auto kMet = Expectation::State::kMet;
constexpr auto kWaiting = Expectation::State::kWaiting;
constexpr auto kFailed = Expectation::State::kFailed;

std::string Request(const std::string& method, const std::string& arguments = "{}") {
  return R"({"what": "request", "client": 1, "app": "org.me", "method": ")" + method +
         R"(", "arguments": )" + arguments + "}";
}
const std::string kAskedX = Request("RequestToUpdate", R"({"models": [{"id": "w"}, {"id": "x"}]})");
const std::string kLicence = Request("get_license");
constexpr char kReply[] = R"({"what": "reply", "method": "get_license", "result": 3})";
constexpr char kProgress[] =
    R"({"what": "answer", "method": "RequestToUpdate", "result": 0, "percentage": 40})";
constexpr char kConnected1[] = R"({"what": "connect", "client": 1, "app": "org.me"})";
constexpr char kConnected2[] = R"({"what": "connect", "client": 2, "app": "org.you"})";
constexpr char kGone1[] = R"({"what": "disconnect", "client": 1, "app": "org.me"})";
constexpr char kEnded[] = R"({"what": "end", "process": "agent", "signal": 9})";
constexpr char kLaunch[] =
    R"({"what": "event", "event": "agent_status", "data": {"Launch": "true"}})";
constexpr char kInstall[] = R"({"what": "step", "step": "install", "version": "2"})";

TEST(ACondition, IsASentenceThatAPersonCanType) {
  const std::vector<std::string> records = {
      kConnected1,
      kAskedX,
      kProgress,
      kLicence,
      kReply,
      kLaunch,
      kInstall,
      kGone1,
      kEnded,
      Request("GetModelVersionList", R"({"model": {"id": "y"}})"),
      Request("request_update_with_list", R"({"agents": ["com.a"]})"),
      R"({"what": "refuse", "app": "org.no"})"};
  for (const char* text : {"RequestToUpdate asked",
                           "RequestToUpdate of x asked",
                           "RequestToUpdate of w asked by org.me",
                           "  get_license   asked by org.me ",
                           "get_license answered",
                           "get_license answered with 3",
                           "RequestToUpdate answered with 0",
                           "RequestToUpdate at 40 percent",
                           "RequestToUpdate at 10 percent",
                           "client connected",
                           "client org.me connected",
                           "client org.no refused",
                           "client refused",
                           "client disconnected",
                           "event Launch",
                           "step install",
                           "agent ended",
                           "GetModelVersionList of y asked",
                           "request_update_with_list of com.a asked",
                           "0 clients connected",
                           "no client connected",
                           "no request_update asked",
                           R"({"what": "end", "signal": 9})",
                           R"({"version": null})"}) {
    EXPECT_EQ(After({text}, records), kMet) << text;
  }
  for (const char* text :
       {"RequestToUpdate of y asked", "get_license asked by org.you", "get_license answered with 4",
        "RequestToUpdate at 41 percent", "client org.you connected", "1 clients connected",
        "event Complete", "agent started", "get_license asked 2 times", R"({"signal": 8})"}) {
    EXPECT_EQ(After({text}, records), kWaiting) << text;
  }
}

TEST(ACondition, ThatMeansNothingSaysWhatIsWrong) {
  const auto problem = [](const std::string& text) {
    try {
      sim::ReadCondition(text);
    } catch (const std::runtime_error& error) {
      return std::string(error.what());
    }
    return std::string("no problem");
  };
  EXPECT_THAT(problem("get_licence asked"), HasSubstr("is get_license meant?"));
  EXPECT_THAT(problem("all is well"), HasSubstr("METHOD [of ID] asked [by APP]"));
  EXPECT_THAT(problem(""), HasSubstr("is no condition"));
  EXPECT_THAT(problem("get_license answered with joy"), HasSubstr("\"joy\" is no whole number"));
  EXPECT_THAT(problem("get_license asked 0 times"), HasSubstr("number from 1"));
  EXPECT_THAT(problem("no get_license asked 2 times"), HasSubstr("no \"no\""));
  EXPECT_THAT(problem("{\"what\": "), HasSubstr("no JSON object"));
  EXPECT_THAT(problem("x\x1b[2J asked"), Not(HasSubstr("\x1b")));
}

TEST(AnExpectation, TakesItsConditionsInTheirOrder) {
  EXPECT_EQ(After({"get_license asked", "agent ended"}, {kLicence, kEnded}), kMet);
  EXPECT_EQ(After({"agent ended", "get_license asked"}, {kLicence, kEnded}), kWaiting);
  EXPECT_EQ(After({"agent ended", "get_license asked"}, {kLicence, kEnded, kLicence}), kMet);
}

TEST(AnExpectation, CountsRecords) {
  EXPECT_EQ(After({"get_license asked 3 times"}, {kLicence, kLicence}), kWaiting);
  EXPECT_EQ(After({"get_license asked 3 times"}, {kLicence, kLaunch, kLicence, kLicence}), kMet);
  EXPECT_EQ(After({"get_license asked 1 times", "get_license asked"}, {kLicence}), kWaiting);
}

TEST(AnExpectation, FailsOfWhatMustNotStandBeforeTheNextCondition) {
  EXPECT_EQ(After({"no get_license asked"}, {kConnected1}), kMet);
  EXPECT_EQ(After({"no get_license asked"}, {kLicence}), kFailed);
  EXPECT_EQ(After({"no get_license asked", "agent ended"}, {kConnected1}), kWaiting);
  EXPECT_EQ(After({"no get_license asked", "agent ended"}, {kEnded, kLicence}), kMet);
  EXPECT_EQ(After({"no get_license asked", "agent ended"}, {kLicence, kEnded}), kFailed);
  EXPECT_EQ(After({"agent ended", "no get_license asked"}, {kLicence, kEnded}), kMet);
}

TEST(AnExpectation, KnowsHowManyClientsAreConnectedNow) {
  EXPECT_EQ(After({"2 clients connected"}, {kConnected1}), kWaiting);
  EXPECT_EQ(After({"2 clients connected"}, {kConnected1, kConnected2}), kMet);
  EXPECT_EQ(After({"2 clients connected"}, {kConnected1, kConnected2, kGone1}), kWaiting);
  EXPECT_EQ(After({"1 client connected"}, {kConnected1, kConnected2, kGone1}), kMet);
  EXPECT_EQ(After({"no client connected"}, {kConnected1, kConnected2, kEnded}), kMet)
      << "their agent has gone";
  EXPECT_EQ(After({"2 clients connected", "get_license asked"}, {kConnected1, kLicence}), kWaiting);
}

TEST(AnExpectation, TellsWhatWasSeenSinceTheLastConditionThatCameTrue) {
  Expectation expectation({sim::ReadCondition("client connected"),
                           sim::ReadCondition("agent ended"),
                           sim::ReadCondition("no event Launch")});
  EXPECT_THAT(expectation.seen(), IsEmpty());
  for (const std::string& record : {std::string(kConnected1), kLicence, std::string(kReply)}) {
    expectation.Take(Fields::parse(record));
  }
  EXPECT_EQ(expectation.current().text, "agent ended");
  EXPECT_THAT(expectation.seen(), ElementsAre(HasSubstr("client 1 asks get_license"),
                                              HasSubstr("reply to get_license: result 3")));
  for (const char* record : {kEnded, kGone1, kLaunch}) expectation.Take(Fields::parse(record));
  EXPECT_EQ(expectation.Look(), kFailed);
  EXPECT_EQ(expectation.current().text, "no event Launch");
  for (int i = 0; i < 1000; ++i) expectation.Take(Fields::parse(kReply));
  EXPECT_EQ(expectation.seen().size(), 2u) << "what came after it failed is no reason";
}

}  // namespace
