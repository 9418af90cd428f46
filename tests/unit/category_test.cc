// SPDX-License-Identifier: Apache-2.0
// The look-up of the package that declares a category.

#include <algorithm>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "connection_support.h"
#include "fake_platform.h"
#include "kept.h"
#include "model_support.h"

namespace {

using fake::IsError;
using fake::IsInfo;
using fake::Items;
using models::IsUnknownException;
using models::List;
using models::NameOfRow;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kEntryFile[] = "service_request.cc";
constexpr char kFunction[] = "velmora_svcmgr_ai_request_usable_model_list_with_category";
constexpr char kKey[] = "ai-agent-category";
const std::string kVendor = VENDOR_PACKAGE_PREFIX;
const std::string kCamera = kVendor + "camera";

::testing::Matcher<const fake::LogRecord&> Entry() {
  return IsInfo(kEntryFile, kFunction, "__ " + std::string(kFunction) + " __");
}

::testing::Matcher<const fake::LogRecord&> FollowUp(int code) {
  return IsError(kEntryFile, kFunction, "connection error [" + std::to_string(code) + "]");
}

// The vendor's camera, which declares the category "vision", and the agent are installed.
struct ACategory : fake::PlatformTest {
  void SetUp() override {
    PlatformTest::SetUp();
    Install({Camera()});
    connection::Stand();
    fake::AllowHeld(fake::Kind::kAppInfo, 1000);
    fake::ExpectKept(fake::Kept::kAppInfo, fake::kEachThatLives);
  }

  // The agent's package comes last.
  static void Install(std::vector<fake::Package> packages) {
    packages.push_back({fake::kAgentId, "2.3.0", {}});
    fake::SetPackages(std::move(packages));
  }

  static fake::Package Camera() { return {kCamera, "4.5.6", Declares("vision")}; }

  static fake::Package Vendors(const std::string& name,
                               const std::vector<fake::Metadata>& metadata = {}) {
    return {kVendor + name, "version of " + name, metadata};
  }

  static std::vector<fake::Metadata> Declares(const std::string& category) {
    return {{kKey, category}};
  }

  static int AskFor(const char* category) {
    return velmora_svcmgr_ai_request_usable_model_list_with_category(Ignore, category, nullptr);
  }

  static void Ignore(int, List, void*) {}

  static void ExpectSentFor(const std::string& id, const std::string& version) {
    ASSERT_THAT(fake::SentParcels(), SizeIs(1));
    EXPECT_EQ(fake::SentParcels()[0].items, (Items{5, 1, 0, false, id, version}));
  }

  static void ExpectNoSuchPackage(int result) {
    EXPECT_EQ(result, SVCMGR_ERROR_INVALID_PARAMETER);
    EXPECT_THAT(fake::Logs(),
                ElementsAre(Entry(),
                            IsError("SvcMgrAppProxyHandler.cc", "GetUsableModelListWithCategory",
                                    "No such package for the category."),
                            FollowUp(-22)));
    EXPECT_THAT(fake::SentParcels(), IsEmpty());
  }

  // The calls of the look-up.
  static std::vector<std::string> Scan() {
    std::vector<std::string> calls;
    for (const fake::Call& call : fake::Calls()) calls.push_back(call.name);
    const auto begin =
        std::find(calls.begin(), calls.end(), "package_manager_foreach_package_info");
    const auto end = std::find(calls.begin(), calls.end(), "rpc_port_parcel_create");
    return {begin, end};
  }
};

TEST_F(ACategory, OfNullIsOfNoPackageAndNothingIsScanned) {
  ExpectNoSuchPackage(AskFor(nullptr));
  EXPECT_EQ(fake::CountCalls("package_manager_foreach_package_info"), 0U);
}

TEST_F(ACategory, OfNullIsLookedAtAfterTheConnection) {
  EXPECT_EQ(velmora_svcmgr_disconnect(), SVCMGR_ERROR_NONE);
  EXPECT_EQ(AskFor(nullptr), SVCMGR_ERROR_NOT_CONNECTED);
}

TEST_F(ACategory, ThatNobodyDeclaresIsOfNoPackage) {
  ExpectNoSuchPackage(AskFor("sound"));
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kAppInfo), 2);  // of the camera and of the agent
}

TEST_F(ACategory, IsLookedForAgainEachTime) {
  EXPECT_EQ(AskFor("sound"), SVCMGR_ERROR_INVALID_PARAMETER);
  Install({Vendors("radio", Declares("sound"))});
  EXPECT_EQ(AskFor("sound"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kVendor + "radio", "version of radio");  // with seq 0
}

TEST_F(ACategory, IsLookedForInOrderAndItsAppInfosAreKept) {
  Install({{"org.example.camera", "1", Declares("vision")},
           Vendors("clock", Declares("time")),
           Vendors("camera", Declares("vision")),
           Vendors("door", Declares("vision"))});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  EXPECT_THAT(Scan(), ElementsAre("package_manager_foreach_package_info",  //
                                  "package_info_get_package", "package_info_get_version",
                                  "package_info_get_package", "package_info_get_version",
                                  "app_info_create", "app_info_foreach_metadata",
                                  "package_info_get_package", "package_info_get_version",
                                  "app_info_create", "app_info_foreach_metadata"));
  ExpectSentFor(kVendor + "camera", "version of camera");
  EXPECT_EQ(fake::LiveObjects(fake::Kind::kAppInfo), 2);
  EXPECT_EQ(fake::CountCalls("app_info_destroy"), 0U);
}

TEST_F(ACategory, LooksItsApplicationUpByThePackagesId) {
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ASSERT_THAT(fake::Calls("app_info_create"), SizeIs(1));
  EXPECT_EQ(fake::Calls("app_info_create")[0].arguments, '"' + kCamera + '"');
}

TEST_F(ACategory, MayBeDeclaredByAPackageWithAnEmptyVersion) {
  Install({{kCamera, "", Declares("vision")}});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "");
}

std::string InCapitals(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return static_cast<char>(std::toupper(c)); });
  return text;
}

struct PackageId {
  std::string name;
  std::string id;
  bool is_vendors;
};

void PrintTo(const PackageId& id, std::ostream* out) { *out << id.id; }

struct APackageId : ACategory, ::testing::WithParamInterface<PackageId> {};

INSTANTIATE_TEST_SUITE_P(
    Of, APackageId,
    ::testing::Values(PackageId{"PrefixFirst", kVendor + "camera", true},
                      PackageId{"PrefixInTheMiddle", "org." + kVendor + "camera", true},
                      PackageId{"PrefixLast", "org." + kVendor, true},
                      PackageId{"PrefixAlone", kVendor, true},
                      PackageId{"PrefixAfterLetters", "x" + kVendor + "camera", true},
                      PackageId{"PrefixTwice", kVendor + kVendor, true},
                      PackageId{"PrefixCutShort", kVendor.substr(0, kVendor.size() - 1), false},
                      PackageId{"PrefixWithoutItsFirst", kVendor.substr(1) + "camera", false},
                      PackageId{"PrefixInCapitals", InCapitals(kCamera), false},
                      PackageId{"AnotherVendors", "org.example.camera", false},
                      PackageId{"Empty", "", false}),
    NameOfRow());

TEST_P(APackageId, DecidesWhetherMetadataIsReadAtAll) {
  Install({{GetParam().id, "7", Declares("vision")}});
  const int result = AskFor("vision");
  if (GetParam().is_vendors) {
    EXPECT_EQ(result, SVCMGR_ERROR_NONE);
    ExpectSentFor(GetParam().id, "7");
  } else {
    ExpectNoSuchPackage(result);
    EXPECT_EQ(fake::CountCalls("app_info_create"), 1U);  // of the agent's own package
  }
}

struct MetadataRow {
  std::string name;
  std::vector<fake::Metadata> metadata;
  std::string category;
  bool matches;
};

void PrintTo(const MetadataRow& row, std::ostream* out) { *out << row.name; }

struct SomeMetadata : ACategory, ::testing::WithParamInterface<MetadataRow> {};

INSTANTIATE_TEST_SUITE_P(
    Of, SomeMetadata,
    ::testing::Values(
        MetadataRow{"KeyAndValue", {{kKey, "vision"}}, "vision", true},
        MetadataRow{"None", {}, "vision", false},
        MetadataRow{"ANullKey", {{std::nullopt, "vision"}}, "vision", false},
        MetadataRow{"ANullKeyFirst", {{std::nullopt, "vision"}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"ANullValue", {{kKey, std::nullopt}}, "vision", false},
        MetadataRow{"ANullValueFirst", {{kKey, std::nullopt}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"NullKeyAndValue", {{std::nullopt, std::nullopt}}, "vision", false},
        MetadataRow{
            "OtherKeysFirst", {{"a", "b"}, {"c", "vision"}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"AnotherValueFirst", {{kKey, "sound"}, {kKey, "vision"}}, "vision", true},
        MetadataRow{"AnotherKey", {{"category", "vision"}}, "vision", false},
        MetadataRow{"AKeyInCapitals", {{"AI-AGENT-CATEGORY", "vision"}}, "vision", false},
        MetadataRow{"AKeyWithMore", {{"ai-agent-category2", "vision"}}, "vision", false},
        MetadataRow{"AKeyWithLess", {{"ai-agent-categor", "vision"}}, "vision", false},
        MetadataRow{"AKeyAfterABlank", {{" ai-agent-category", "vision"}}, "vision", false},
        MetadataRow{"AnEmptyKey", {{"", "vision"}}, "vision", false},
        MetadataRow{"AValueInCapitals", {{kKey, "VISION"}}, "vision", false},
        MetadataRow{"AValueWithMore", {{kKey, "visions"}}, "vision", false},
        MetadataRow{"AValueWithLess", {{kKey, "visio"}}, "vision", false},
        MetadataRow{"AValueWithABlank", {{kKey, "vision "}}, "vision", false},
        MetadataRow{"AnEmptyValue", {{kKey, ""}}, "vision", false},
        MetadataRow{"AnEmptyCategory", {{kKey, "vision"}}, "", false},
        MetadataRow{"AnEmptyCategoryThatIsDeclared", {{kKey, ""}}, "", true}),
    NameOfRow());

TEST_P(SomeMetadata, DecidesWhetherAPackageMatches) {
  Install({Vendors("camera", GetParam().metadata)});
  const int result = AskFor(GetParam().category.c_str());
  if (GetParam().matches) {
    EXPECT_EQ(result, SVCMGR_ERROR_NONE);
    ExpectSentFor(kCamera, "version of camera");
  } else {
    ExpectNoSuchPackage(result);
  }
}

// ---- A look-up that fails -----------------------------------------------------------------------

struct ScanFailure {
  std::string name;
  std::string function;
  int calls_before;  // calls of the function before the scan, in one query
  fake::Step (*step)();
};

void PrintTo(const ScanFailure& failure, std::ostream* out) { *out << failure.name; }

const ScanFailure kScanFailures[] = {
    {"IdFails", "package_info_get_package", 0, [] { return fake::Fail(-5); }},
    {"IdFailsWithGarbage", "package_info_get_package", 0,
     [] { return fake::FailWithGarbage(-22); }},
    {"IdFailsWithNull", "package_info_get_package", 0, [] { return fake::FailWithNull(-12); }},
    {"IdIsNull", "package_info_get_package", 0, [] { return fake::SucceedWithNull(); }},
    {"VersionFails", "package_info_get_version", 1, [] { return fake::Fail(-5); }},
    {"VersionFailsWithGarbage", "package_info_get_version", 1,
     [] { return fake::FailWithGarbage(-22); }},
    {"VersionFailsWithNull", "package_info_get_version", 1, [] { return fake::FailWithNull(-12); }},
    {"VersionIsNull", "package_info_get_version", 1, [] { return fake::SucceedWithNull(); }},
    {"ApplicationFails", "app_info_create", 0, [] { return fake::Fail(-5); }},
    {"ApplicationFailsWithGarbage", "app_info_create", 0,
     [] { return fake::FailWithGarbage(-22); }},
    {"ApplicationFailsWithNull", "app_info_create", 0, [] { return fake::FailWithNull(-12); }},
    {"ApplicationIsNull", "app_info_create", 0, [] { return fake::SucceedWithNull(); }},
};

struct AFailureInTheScan : ACategory, ::testing::WithParamInterface<std::tuple<ScanFailure, int>> {
  void SetUp() override {
    ACategory::SetUp();
    Install(
        {Vendors("one"), Vendors("two"), Vendors("three"), Vendors("four", Declares("vision"))});
  }
};

INSTANTIATE_TEST_SUITE_P(Of, AFailureInTheScan,
                         ::testing::Combine(::testing::ValuesIn(kScanFailures),
                                            ::testing::Range(1, 5)),
                         [](const auto& row) {
                           return std::get<0>(row.param).name + "_AtPackage" +
                                  std::to_string(std::get<1>(row.param));
                         });

TEST_P(AFailureInTheScan, EndsItAndNothingIsFound) {
  const auto& [failure, n] = GetParam();
  fake::AtCall(failure.function, failure.calls_before + n, failure.step());
  ExpectNoSuchPackage(AskFor("vision"));
  EXPECT_EQ(fake::CountCalls("package_info_get_package"), static_cast<std::size_t>(n));
  EXPECT_EQ(fake::CountCalls("app_info_foreach_metadata"), static_cast<std::size_t>(n - 1));
}

TEST_F(ACategory, IsNotFoundAfterAVendorsPackageWithoutAnApplication) {
  fake::Package headless = Vendors("headless");
  headless.has_application = false;
  Install({headless, Camera()});
  ExpectNoSuchPackage(AskFor("vision"));
}

TEST_F(ACategory, IsFoundAfterAnotherVendorsPackageWithoutAnApplication) {
  Install({{"org.example.headless", "1", {}, false}, Camera()});
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
}

TEST_F(ACategory, IsFoundAlthoughTheIterationFailsAfterIt) {
  fake::Next("package_manager_foreach_package_info", fake::FailAfterWork(-5));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");
}

TEST_F(ACategory, IsNotFoundWhenTheIterationFailsAtOnce) {
  fake::Next("package_manager_foreach_package_info", fake::Fail(-5));
  ExpectNoSuchPackage(AskFor("vision"));
}

TEST_F(ACategory, IsFoundAlthoughTheMetadatasIterationFailsAfterIt) {
  fake::Next("app_info_foreach_metadata", fake::FailAfterWork(-5));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");
}

TEST_F(ACategory, IsLookedForFurtherWhenTheMetadatasIterationFailsAtOnce) {
  Install({Vendors("first", Declares("vision")), Camera()});
  fake::Next("app_info_foreach_metadata", fake::Fail(-5));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");
}

struct AnExceptionInTheScan : ACategory, ::testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(In, AnExceptionInTheScan,
                         ::testing::Values("package_manager_foreach_package_info",
                                           "package_info_get_package", "package_info_get_version",
                                           "app_info_create", "app_info_foreach_metadata"),
                         [](const auto& row) { return row.param; });

TEST_P(AnExceptionInTheScan, DoesNotCrossThePlatformAndEndsTheQuery) {
  const int n = GetParam() == "package_info_get_version" ? 2 : 1;
  fake::AtCall(GetParam(), n, fake::Throw(std::runtime_error("thrown")));
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_INVALID_OPERATION);
  const auto logs = fake::Logs();
  ASSERT_GE(logs.size(), 3U);
  EXPECT_THAT(logs.front(), Entry());
  EXPECT_THAT(logs.back(), FollowUp(-38));
  for (std::size_t i = 1; i + 1 < logs.size(); ++i) EXPECT_THAT(logs[i], IsUnknownException());
  EXPECT_THAT(fake::SentParcels(), IsEmpty());
  // There is a package after the one whose step threw.
  const bool scanned = GetParam() != "package_manager_foreach_package_info";
  EXPECT_EQ(fake::CountCalls("package_info_get_package"), scanned ? 1U : 0U);
  fake::ForgetScripts(GetParam());
  EXPECT_EQ(AskFor("vision"), SVCMGR_ERROR_NONE);
  ExpectSentFor(kCamera, "4.5.6");  // with seq 0
}

}  // namespace
