#include "support/TlsServer.h"

#include "support/RawRecorder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace zrk::test {
namespace {

bool run(const std::string& command) { return std::system((command + " >/dev/null 2>&1").c_str()) == 0; }

// Key and certificate of a server for 127.0.0.1, signed by the CA unless
// selfSigned; days < 0 makes one that expired before it began.
bool makeServer(const std::string& dir, const std::string& name, const std::string& altName, int days,
                bool selfSigned) {
  const std::string base = dir + "/" + name;
  {
    std::ofstream ext(base + ".ext");
    ext << "subjectAltName=" << altName << "\n";
  }
  if (selfSigned) {
    if (!run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + base + ".key -out " + base +
             ".crt -days 2 -subj /CN=127.0.0.1 -addext subjectAltName=" + altName)) {
      return false;
    }
  } else if (!run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + base + ".key -out " + base +
                  ".csr -subj /CN=server") ||
             !run("openssl x509 -req -in " + base + ".csr -CA " + dir + "/ca.pem -CAkey " + dir +
                  "/ca.key -CAcreateserial -out " + base + ".crt -days " + std::to_string(days) + " -extfile " +
                  base + ".ext")) {
    return false;
  }
  std::ifstream key(base + ".key"), certificate(base + ".crt");
  std::ofstream both(base + ".pem");
  both << key.rdbuf() << certificate.rdbuf();
  return static_cast<bool>(both);
}

}  // namespace

const std::string& TestCertificates::caFilePath() {
  static const std::string path = [] {
    char pattern[] = "/tmp/zrk-tls-XXXXXX";
    return ::mkdtemp(pattern) ? std::string(pattern) + "/ca.pem" : std::string();
  }();
  // Registered after the path exists, so it runs before the path goes.
  [[maybe_unused]] static const bool cleanup = std::atexit([] {
    std::filesystem::remove_all(std::filesystem::path(caFilePath()).parent_path());
  }) == 0;
  return path;
}

const TestCertificates& TestCertificates::shared() {
  static const TestCertificates certificates = [] {
    TestCertificates c;
    c.caFile = caFilePath();
    if (c.caFile.empty()) return c;
    c.directory = std::filesystem::path(c.caFile).parent_path();
    c.good = c.directory + "/good.pem";
    c.wrongName = c.directory + "/wrong-name.pem";
    c.expired = c.directory + "/expired.pem";
    c.selfSigned = c.directory + "/self-signed.pem";
    c.ok = run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + c.directory + "/ca.key -out " + c.caFile +
               " -days 2 -subj /CN=zrkapi-test-ca -addext basicConstraints=critical,CA:TRUE"
               " -addext keyUsage=critical,keyCertSign,cRLSign") &&
           makeServer(c.directory, "good", "IP:127.0.0.1", 2, false) &&
           makeServer(c.directory, "wrong-name", "DNS:elsewhere.invalid", 2, false) &&
           makeServer(c.directory, "expired", "IP:127.0.0.1", -1, false) &&
           makeServer(c.directory, "self-signed", "IP:127.0.0.1", 2, true);
    return c;
  }();
  return certificates;
}

TlsServer::TlsServer(const std::string& keyAndCertificateFile, std::string answer) : answer_(std::move(answer)) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  if (SSL_CTX_use_certificate_chain_file(context, keyAndCertificateFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, keyAndCertificateFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    std::abort();
  }
  context_ = context;
  listener_ = listenOnLoopback(port_);
  thread_ = std::thread([this] { serve(); });
}

TlsServer::~TlsServer() {
  stopping_ = true;
  thread_.join();
  ::close(listener_);
  SSL_CTX_free(static_cast<SSL_CTX*>(context_));
}

std::string TlsServer::lastRequest() const {
  std::lock_guard lock(mutex_);
  return lastRequest_;
}

void TlsServer::serve() {
  // A client that refuses the certificate closes while the answer is being
  // written: OpenSSL's write must fail with EPIPE, not kill the process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  while (!stopping_) {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, 20) <= 0) continue;
    const int connection = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection < 0) continue;
    // Blocking reads, bounded: a client that stalls the handshake costs at
    // most this long.
    const timeval limit{2, 0};
    ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    SSL* ssl = SSL_new(static_cast<SSL_CTX*>(context_));
    SSL_set_fd(ssl, connection);
    if (SSL_accept(ssl) == 1) {
      ++handshakes_;
      std::string head;
      char buffer[4096];
      while (head.find("\r\n\r\n") == std::string::npos) {
        const int n = SSL_read(ssl, buffer, sizeof buffer);
        if (n <= 0) break;
        head.append(buffer, static_cast<std::size_t>(n));
      }
      {
        std::lock_guard lock(mutex_);
        lastRequest_ = head;
      }
      const std::string response = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                                   std::to_string(answer_.size()) + "\r\nConnection: close\r\n\r\n" + answer_;
      SSL_write(ssl, response.data(), static_cast<int>(response.size()));
      SSL_shutdown(ssl);
    } else {
      ++failedHandshakes_;
    }
    ERR_clear_error();
    SSL_free(ssl);
    ::close(connection);
  }
}

}  // namespace zrk::test
