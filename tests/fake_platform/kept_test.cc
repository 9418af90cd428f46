// SPDX-License-Identifier: Apache-2.0
// Does the verdict see each thing that is lost, kept without being expected, or missing? Each test
// does what a defect of the library would do, and the verdict must fail it.

#include "kept.h"

#include <fcntl.h>
#include <gtest/gtest-spi.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "fake_platform.h"

// svcmgr::KeptBlocks::Add and svcmgr::KeepStorage, as the library calls them here.
extern "C" void __wrap__ZN6svcmgr10KeptBlocks3AddEPv(void* self, void* block);
extern "C" void __wrap__ZN6svcmgr11KeepStorageEPv(void* storage);

namespace {

using fake::Kept;

/** The optimiser may leave out what nobody looks at. */
template <typename T>
T* Opaque(T* made) {
  T* volatile seen = made;
  return seen;
}

void Keep(void* block) { __wrap__ZN6svcmgr10KeptBlocks3AddEPv(nullptr, block); }
void KeepStorage(void* storage) { __wrap__ZN6svcmgr11KeepStorageEPv(storage); }

app_info_h MakeAppInfo() {
  app_info_h info = nullptr;
  EXPECT_EQ(app_info_create(fake::kAgentId, &info), 0);
  fake::AllowHeld(fake::Kind::kAppInfo, 1);
  return info;
}

struct Record {
  char* texts[4];
};

void* MakeRecord(const char* text) {
  auto* const record = static_cast<Record*>(calloc(1, sizeof(Record)));
  record->texts[0] = strdup(text);
  return record;
}

class TheVerdict : public fake::PlatformTest {};

TEST_F(TheVerdict, LetsBeKeptWhatItIsToldToAndNothingElse) {
  fake::LetBeKept({Kept::kStorage});
  KeepStorage(Opaque(malloc(8)));
  Keep(Opaque(strdup("kept")));
  fake::ExpectKept(2);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 former text(s) kept, 0 expected");
}

/* What is lost. */

TEST_F(TheVerdict, SeesALostText) {
  EXPECT_NE(Opaque(strndup("a text", 3)), nullptr);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "lost: 4 bytes of strndup: \"a t\"");
}

TEST_F(TheVerdict, SeesALostTextOfThePlatform) {
  char* id = nullptr;
  EXPECT_EQ(app_get_id(&id), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "lost: 16 bytes of app_get_id: \"org.example.app\"");
}

TEST_F(TheVerdict, SeesALostTextAmongAsManyAsAreExpected) {
  Keep(Opaque(strdup("kept")));
  EXPECT_NE(Opaque(strdup("lost")), nullptr);
  fake::ExpectKept(2);
  fake::ExpectKept(Kept::kFormerText, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "lost: 5 bytes of strdup: \"lost\"");
}

TEST_F(TheVerdict, SeesALostRecord) {
  EXPECT_NE(Opaque(calloc(1, sizeof(Record))), nullptr);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "bytes of calloc");
}

TEST_F(TheVerdict, SeesALostTextBesideARecordThatIsKept) {
  Keep(MakeRecord("its own"));
  EXPECT_NE(Opaque(strdup("nobody's")), nullptr);
  fake::ExpectKept(3);
  fake::ExpectKept(Kept::kRecord, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "lost: 9 bytes of strdup: \"nobody's\"");
}

TEST_F(TheVerdict, SeesALostBlockOfOperatorNew) {
  if (!fake::SeesOperatorNew()) GTEST_SKIP() << "operator new cannot be seen here";
  {
    const fake::NewTracking tracking;
    EXPECT_NE(Opaque(new int(7)), nullptr);
  }
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "lost: 4 bytes of new");
}

TEST_F(TheVerdict, SeesALostParcel) {
  rpc_port_parcel_h parcel = nullptr;
  EXPECT_EQ(rpc_port_parcel_create(&parcel), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live parcel(s), 0 allowed");
}

TEST_F(TheVerdict, SeesALostPackageInfo) {
  package_info_h info = nullptr;
  EXPECT_EQ(package_info_create(fake::kAgentId, &info), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live package info(s), 0 allowed");
}

TEST_F(TheVerdict, SeesALostProxy) {
  rpc_port_proxy_h proxy = nullptr;
  EXPECT_EQ(rpc_port_proxy_create(&proxy), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live proxy(s), 0 allowed");
}

TEST_F(TheVerdict, SeesALostSubscription) {
  event_handler_h handler = nullptr;
  const event_cb ignore = [](const char*, bundle*, void*) {};
  EXPECT_EQ(event_add_event_handler("an event", ignore, nullptr, &handler), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 live event handler(s), 0 allowed");
}

TEST_F(TheVerdict, SeesALostDescriptor) {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "lost: 1 descriptor(s)");
  close(descriptor);
}

TEST_F(TheVerdict, SeesALostAppInfoAmongAsManyAsAreExpected) {
  MakeAppInfo();
  fake::ExpectKept(Kept::kAppInfo, fake::kEachThatLives);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 app info(s) kept, 1 expected");
}

/* What is released wrongly. */

TEST_F(TheVerdict, SeesADoubleRelease) {
  char* volatile text = strdup("a text");
  free(text);
  free(text);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "a block is released twice");
}

TEST_F(TheVerdict, SeesADoubleReleaseOfAHandle) {
  rpc_port_parcel_h parcel = nullptr;
  EXPECT_EQ(rpc_port_parcel_create(&parcel), 0);
  EXPECT_EQ(rpc_port_parcel_destroy(parcel), 0);
  EXPECT_NE(rpc_port_parcel_destroy(parcel), 0);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "is destroyed twice");
}

TEST_F(TheVerdict, SeesTheReleaseOfWhatIsKept) {
  char* const text = Opaque(strdup("a text"));
  Keep(text);
  free(text);
  fake::ExpectKept(1);
  fake::ExpectKept(Kept::kFormerText, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 live block(s), 1 expected");
}

/* What is kept otherwise than expected. */

TEST_F(TheVerdict, SeesATextThatIsKeptUnexpectedly) {
  Keep(Opaque(strdup("a text")));
  fake::ExpectKept(1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 former text(s) kept, 0 expected");
}

TEST_F(TheVerdict, SeesARecordThatIsKeptUnexpectedly) {
  Keep(MakeRecord("a text"));
  fake::ExpectKept(2);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 converted record(s) kept, 0 expected");
}

TEST_F(TheVerdict, SeesAStorageThatIsKeptUnexpectedly) {
  KeepStorage(Opaque(malloc(sizeof(void*))));
  fake::ExpectKept(1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 list storage(s) kept, 0 expected");
}

TEST_F(TheVerdict, SeesAnAppInfoThatIsKeptUnexpectedly) {
  Keep(MakeAppInfo());
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "1 app info(s) kept, 0 expected");
}

TEST_F(TheVerdict, SeesThatATextIsMissing) {
  fake::ExpectKept(Kept::kFormerText, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 former text(s) kept, 1 expected");
}

TEST_F(TheVerdict, SeesThatARecordIsMissing) {
  fake::ExpectKept(Kept::kRecord, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 converted record(s) kept, 1 expected");
}

TEST_F(TheVerdict, SeesThatAStorageIsMissing) {
  fake::ExpectKept(Kept::kStorage, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 list storage(s) kept, 1 expected");
}

TEST_F(TheVerdict, SeesThatSomethingElseIsKeptThanExpected) {
  Keep(Opaque(strdup("a text")));
  fake::ExpectKept(1);
  fake::ExpectKept(Kept::kFormerText, 1);
  fake::ExpectKept(Kept::kRecord, 1);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "0 converted record(s) kept, 1 expected");
}

TEST_F(TheVerdict, SeesABlockThatIsKeptTwice) {
  char* const text = Opaque(strdup("a text"));
  Keep(text);
  Keep(text);
  fake::ExpectKept(1);
  fake::ExpectKept(Kept::kFormerText, 2);
  EXPECT_NONFATAL_FAILURE(fake::Verify(), "a block is kept twice");
}

/* What it must let pass. */

TEST_F(TheVerdict, LetsEachKindBeKeptThatIsExpected) {
  Keep(Opaque(strdup("a text")));
  Keep(MakeRecord("of the record"));
  KeepStorage(Opaque(malloc(sizeof(void*))));
  Keep(MakeAppInfo());
  fake::ExpectKept(4);
  fake::ExpectKept(Kept::kFormerText, 1);
  fake::ExpectKept(Kept::kRecord, 1);
  fake::ExpectKept(Kept::kStorage, 1);
  fake::ExpectKept(Kept::kAppInfo, 1);
}

}  // namespace
