// Certificate checks: the shared session trusts what its CA file trusts and
// nothing else, and a session left at its defaults verifies against the
// system's store.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>

#include "support/Reliability.h"
#include "support/ServiceTest.h"
#include "support/TlsServer.h"
#include "zrk/ZRKApiAuthToken.h"
#include "zrk/ZRKCollection.h"
#include "zrk/ZRKMainQueue.h"

namespace zrk {
namespace {

using namespace test;
using namespace std::chrono_literals;

constexpr const char* kCollections = R"({"result":[{"id":"c1","name":"posters"}],"total":1})";
constexpr long kPeerFailedVerification = 60;  // libcurl: the certificate or its name did not verify

struct CertificateCase {
  const char* name;
  std::string TestCertificates::*file;
  bool accepted;
};

void PrintTo(const CertificateCase& c, std::ostream* out) { *out << c.name; }

class Certificates : public ReliabilityTest, public ::testing::WithParamInterface<CertificateCase> {};

TEST_P(Certificates, OnlyATrustedMatchingCurrentCertificateIsAccepted) {
  const auto& certificates = TestCertificates::shared();
  ASSERT_TRUE(certificates.ok) << "openssl could not make the test certificates";
  TlsServer tls(certificates.*GetParam().file, kCollections);
  ZRKApiClient::setBaseUrl(tls.url());
  ZRKApiAuthToken::setToken(validToken());

  auto outcome = std::make_shared<Outcome>();
  client->retrieveCollectionsWithCompletion(
      [outcome](std::optional<std::vector<std::shared_ptr<ZRKCollection>>> list, std::optional<ZRKError> error) {
        outcome->record(list && list->size() == 1, std::move(error));
      });
  ASSERT_TRUE(waitForCall(outcome, std::chrono::milliseconds(static_cast<long>(kRequestTimeout * 1000)) + kMargin));
  settle(100ms);
  EXPECT_EQ(outcome->calls, 1);
  EXPECT_FALSE(outcome->offMainThread);
  if (GetParam().accepted) {
    EXPECT_TRUE(outcome->result);
    EXPECT_FALSE(outcome->error) << outcome->error->localizedDescription();
    EXPECT_NE(tls.lastRequest().find("GET /app/v1/collection "), std::string::npos);
  } else {
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(outcome->error->domain, ZRKURLErrorDomain);
    EXPECT_EQ(outcome->error->code, kPeerFailedVerification) << outcome->error->localizedDescription();
    EXPECT_EQ(tls.lastRequest(), "") << "a request went out over an unverified connection";
  }
}

INSTANTIATE_TEST_SUITE_P(
    Tls, Certificates,
    ::testing::Values(CertificateCase{"SignedByTheTrustedCA", &TestCertificates::good, true},
                      CertificateCase{"SelfSigned", &TestCertificates::selfSigned, false},
                      CertificateCase{"ForAnotherName", &TestCertificates::wrongName, false},
                      CertificateCase{"Expired", &TestCertificates::expired, false}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ReliabilityTest, ADefaultSessionVerifiesAgainstTheSystemStore) {
  const auto& certificates = TestCertificates::shared();
  ASSERT_TRUE(certificates.ok);
  TlsServer tls(certificates.good, kCollections);
  const auto configuration = ZRKURLSessionConfiguration::defaultSessionConfiguration();
  EXPECT_EQ(configuration->caInfoPath, "");
  configuration->timeoutIntervalForRequest = kRequestTimeout;
  const auto session = ZRKURLSession::sessionWithConfiguration(configuration, {}, &ZRKMainQueue::mainQueue());

  auto outcome = std::make_shared<Outcome>();
  session
      ->dataTaskWithRequest(ZRKURLRequest(ZRKURL::URLWithString(tls.url() + "/app/v1/collection")),
                            [outcome](std::optional<std::string> body, std::shared_ptr<const ZRKHTTPURLResponse>,
                                      std::optional<ZRKError> error) { outcome->record(body.has_value(), error); })
      ->resume();
  ASSERT_TRUE(waitForCall(outcome, 2000ms + kMargin));
  ASSERT_TRUE(outcome->error);
  EXPECT_EQ(outcome->error->code, kPeerFailedVerification);
  EXPECT_EQ(tls.lastRequest(), "");
}

// Verification has no off switch: no source of the library may weaken it.
TEST(TlsVerification, NoSourceTurnsVerificationOff) {
  const std::regex weakening(R"(CURLOPT_SSL_VERIFY(PEER|HOST|STATUS)|CURLSSLOPT_NO_REVOKE|CURLOPT_PROXY_SSL_VERIFY|SSL_VERIFY_NONE)");
  std::size_t files = 0;
  for (const char* folder : {"src", "include"}) {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(std::string(ZRK_SOURCE_DIR) + "/" + folder)) {
      if (!entry.is_regular_file()) continue;
      std::ifstream in(entry.path());
      const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      EXPECT_FALSE(std::regex_search(text, weakening)) << entry.path();
      ++files;
    }
  }
  EXPECT_GT(files, 20u);
}

}  // namespace
}  // namespace zrk
