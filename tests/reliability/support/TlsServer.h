// A minimal HTTPS server on 127.0.0.1 for certificate checks: it completes
// the handshake with the given certificate, reads one request head and
// answers it with a fixed body. A client that refuses the certificate ends
// the handshake, which the server counts.
#ifndef ZRK_TESTS_RELIABILITY_TLSSERVER_H
#define ZRK_TESTS_RELIABILITY_TLSSERVER_H

#include <atomic>
#include <mutex>
#include <string>
#include <thread>

namespace zrk::test {

// Certificates made with the openssl command in a fresh directory: a test
// CA, and server certificates for 127.0.0.1 that the CA signed (good), that
// name another host (wrongName), that have expired (expired), and one that
// signs itself (selfSigned). Each server file holds key and certificate.
struct TestCertificates {
  std::string directory;
  std::string caFile;
  std::string good, wrongName, expired, selfSigned;
  bool ok = false;

  // Made on first use; slow (the openssl command runs several times).
  static const TestCertificates& shared();
  // Where the CA will be, known before it is made, so that a session can
  // point at it from the start.
  static const std::string& caFilePath();
};

class TlsServer {
 public:
  TlsServer(const std::string& keyAndCertificateFile, std::string answer);
  ~TlsServer();
  TlsServer(const TlsServer&) = delete;
  TlsServer& operator=(const TlsServer&) = delete;

  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_); }
  int handshakes() const { return handshakes_; }
  int failedHandshakes() const { return failedHandshakes_; }
  // The last request head read after a handshake.
  std::string lastRequest() const;

 private:
  void serve();

  const std::string answer_;
  void* context_ = nullptr;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> handshakes_{0};
  std::atomic<int> failedHandshakes_{0};
  mutable std::mutex mutex_;
  std::string lastRequest_;  // guarded by mutex_
  std::thread thread_;
};

}  // namespace zrk::test

#endif  // ZRK_TESTS_RELIABILITY_TLSSERVER_H
