#include "server/RequestChecks.h"

#include <gtest/gtest.h>

#include "common/KroStatus.h"

namespace kro {
namespace {

namespace status = kro::status;

TEST(RequestChecksTests, ClientIdentityNeedsKnownNameAndVersionOneTwo) {
  struct Case {
    const char* userAgent;
    long result;
    bool supported;
  };
  const Case cases[] = {
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
      {"Mozilla/5.0 (X11; Linux x86_64)", status::UnknownComponent, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.userAgent);
    bool supported = !c.supported;
    EXPECT_EQ(ClientIdentity(c.userAgent, supported), c.result);
    EXPECT_EQ(supported, c.supported);
  }
}

TEST(RequestChecksTests, ClientsAreSortedByUserAgentAndServer) {
  struct Case {
    const char* userAgent;
    bool masterOrAgent;
    ClientClass client;
  };
  const Case cases[] = {
      {"", true, ClientClass::Browser},
      {"", false, ClientClass::Unsupported},
      {"Mozilla/5.0 (Windows NT 10.0)", true, ClientClass::Browser},
      {"Mozilla/4.0 (compatible; MSIE 7.0; Windows NT 6.1)", true, ClientClass::OldBrowser},
      {"Mozilla/4.0 (compatible; MSIE 8.0)", false, ClientClass::OldBrowser},
      {"Mozilla/5.0 (compatible; MSIE 9.0)", true, ClientClass::Browser},
      {"KroAgent/1.1", true, ClientClass::OutdatedComponent},
      {"KroSysMgr/1.2", false, ClientClass::Component},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.userAgent);
    EXPECT_EQ(ClassifyClient(c.userAgent, c.masterOrAgent), c.client);
  }
}

TEST(RequestChecksTests, OnlyTheConsoleUrlSpaceIsAdmitted) {
  struct Case {
    ClientClass client;
    const char* uri;
    bool admitted;
  };
  const Case cases[] = {
      {ClientClass::Browser, "/", true},
      {ClientClass::Component, "/", false},
      {ClientClass::Browser, "/ARBALO/index.html", true},
      {ClientClass::Component, "/Kro/Master/x", true},
      {ClientClass::Component, "/other/x", false},
      {ClientClass::Browser, "/arbalo", false},
      {ClientClass::OutdatedComponent, "/kro/x", false},
      {ClientClass::Unsupported, "/kro/x", false},
      {ClientClass::OldBrowser, "/arbalo/x", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.uri);
    EXPECT_EQ(IsUriAdmitted(c.client, c.uri), c.admitted);
  }
}

TEST(RequestChecksTests, ContentLengthMustBeOneWholeNumber) {
  struct Case {
    const char* value;
    bool valid;
    uint64_t length;
  };
  const Case cases[] = {
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
      {"12abc", false, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    uint64_t length = 0;
    EXPECT_EQ(ParseContentLength(c.value, length), c.valid);
    EXPECT_EQ(length, c.length);
  }
}

}  // namespace
}  // namespace kro
