#include "server/RequestChecks.h"

#include <gtest/gtest.h>

#include <tuple>

#include "core/KroStatus.h"

namespace kro {
namespace {

namespace status = kro::status;

TEST(RequestChecksTests, ClientIdentityNeedsKnownNameAndVersionOneTwo) {
  const std::tuple<const char*, long, bool> cases[] = {
      {"KroAgent/1.1", status::Ok, false},
      {"KroAgent/1.2", status::Ok, true},
      {"KroAgent/2.0", status::Ok, true},
      {"KroAgent/2", status::Ok, true},
      {"KroMaster/1.3", status::Ok, true},
      {"KroProduct/1.2", status::Ok, true},
      // Major * 256 OR minor: 256 | 256 stays 256, below 1.2, where a sum would pass.
      {"KroSysMgr/1.256", status::Ok, false},
      {"KroAgent/0.258", status::Ok, true},
      {"KroAgent/99999999999.0", status::Ok, true},
      {"KroAgent", status::NotAvailable, false},
      {"", status::NotAvailable, false},
      {"kroagent/1.2", status::UnknownComponent, false},
      {"Mozilla/5.0 (X11; Linux x86_64)", status::UnknownComponent, false}};
  for (const auto& [userAgent, result, wantSupported] : cases) {
    SCOPED_TRACE(userAgent);
    bool supported = !wantSupported;
    EXPECT_EQ(ClientIdentity(userAgent, supported), result);
    EXPECT_EQ(supported, wantSupported);
  }
}

TEST(RequestChecksTests, ClientsAreSortedByUserAgentAndServer) {
  const std::tuple<const char*, bool, ClientClass> cases[] = {
      {"", true, ClientClass::Browser},
      {"", false, ClientClass::Unsupported},
      {"Mozilla/5.0 (Windows NT 10.0)", true, ClientClass::Browser},
      {"Mozilla/4.0 (compatible; MSIE 7.0; Windows NT 6.1)", true, ClientClass::OldBrowser},
      {"Mozilla/4.0 (compatible; MSIE 8.0)", false, ClientClass::OldBrowser},
      {"Mozilla/5.0 (compatible; MSIE 9.0)", true, ClientClass::Browser},
      {"KroAgent/1.1", true, ClientClass::OutdatedComponent},
      {"KroSysMgr/1.2", false, ClientClass::Component}};
  for (const auto& [userAgent, masterOrAgent, client] : cases) {
    SCOPED_TRACE(userAgent);
    EXPECT_EQ(ClassifyClient(userAgent, masterOrAgent), client);
  }
}

TEST(RequestChecksTests, OnlyTheConsoleUrlSpaceIsAdmitted) {
  const std::tuple<ClientClass, const char*, bool> cases[] = {
      {ClientClass::Browser, "/", true},
      {ClientClass::Component, "/", false},
      {ClientClass::Browser, "/ARBALO/index.html", true},
      {ClientClass::Component, "/Kro/Master/x", true},
      {ClientClass::Component, "/other/x", false},
      {ClientClass::Browser, "/arbalo", false},
      {ClientClass::OutdatedComponent, "/kro/x", false},
      {ClientClass::Unsupported, "/kro/x", false},
      {ClientClass::OldBrowser, "/arbalo/x", false}};
  for (const auto& [client, uri, admitted] : cases) {
    SCOPED_TRACE(uri);
    EXPECT_EQ(IsUriAdmitted(client, uri), admitted);
  }
}

TEST(RequestChecksTests, ContentLengthMustBeOneWholeNumber) {
  const std::tuple<const char*, bool, uint64_t> cases[] = {
      {"12", true, 12},
      {" 7\t", true, 7},
      {"0", true, 0},
      {"18446744073709551615", true, UINT64_MAX},
      {"18446744073709551616", false, 0},
      {"", false, 0},
      {"  ", false, 0},
      {"1 2", false, 0},
      {"-1", false, 0},
      {"+5", false, 0},
      {"0x10", false, 0},
      {"12abc", false, 0}};
  for (const auto& [value, valid, wantLength] : cases) {
    SCOPED_TRACE(value);
    uint64_t length = 0;
    EXPECT_EQ(ParseContentLength(value, length), valid);
    EXPECT_EQ(length, wantLength);
  }
}

}  // namespace
}  // namespace kro
