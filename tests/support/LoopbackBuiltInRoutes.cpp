#include <algorithm>
#include <cstdlib>

#include "support/LoopbackConnection.h"

namespace kx::test::loopback {
namespace {

size_t QueryNumber(const httplib::Request& req, const char* name, size_t fallback) {
  if (!req.has_param(name)) return fallback;
  return static_cast<size_t>(std::strtoull(req.get_param_value(name).c_str(), nullptr, 10));
}

std::string QueryOf(const httplib::Request& req) {
  size_t at = req.target.find('?');
  return at == std::string::npos ? std::string() : req.target.substr(at);
}

}  // namespace

void AddBuiltInRoutes(const AddRoute& add, const WaitForStop& waitForStop) {
  add("", "/echo", [](const httplib::Request& req, httplib::Response& res) {
    std::string out = req.method + " " + req.target + "\n";
    for (const auto& [name, value] : ReceivedHeaders(req)) out += name + ": " + value + "\n";
    out += "\n";
    out += req.body;
    res.set_content(out, "text/plain");
  });
  add("", "/echo/body", [](const httplib::Request& req, httplib::Response& res) {
    std::string type = req.get_header_value("Content-Type");
    res.set_content(req.body, type.empty() ? "application/octet-stream" : type);
  });
  add("", "/status/(\\d{3})", [](const httplib::Request& req, httplib::Response& res) {
    const int status = std::stoi(req.matches[1].str());
    res.status = status;
    if (req.has_param("size")) {
      res.set_content(LoopbackHttpServer::PatternBytes(QueryNumber(req, "size", 0)), "text/plain");
    } else {
      res.set_content("status " + std::to_string(status) + "\n", "text/plain");
    }
  });
  add("", "/redirect/(\\d+)", [](const httplib::Request& req, httplib::Response& res) {
    size_t remaining = std::stoul(req.matches[1].str());
    if (remaining == 0) {
      res.set_content("redirect chain end\n", "text/plain");
      return;
    }
    res.status = 302;
    res.set_header("Location", "/redirect/" + std::to_string(remaining - 1) + QueryOf(req));
  });
  add("", "/redirect-to", [](const httplib::Request& req, httplib::Response& res) {
    res.status = static_cast<int>(QueryNumber(req, "status", 302));
    res.set_header("Location", req.get_param_value("url"));
  });
  add("GET", "/bytes/(\\d+)", [](const httplib::Request& req, httplib::Response& res) {
    res.set_content(LoopbackHttpServer::PatternBytes(std::stoul(req.matches[1].str())), "application/octet-stream");
  });
  add("", "/response-headers", [](const httplib::Request& req, httplib::Response& res) {
    for (const auto& [name, value] : req.params) res.set_header(name, value);
    res.set_content("ok\n", "text/plain");
  });
  add("GET", "/slow", [waitForStop](const httplib::Request& req, httplib::Response& res) {
    size_t total = QueryNumber(req, "bytes", 1000000);
    auto interval = std::chrono::milliseconds(QueryNumber(req, "intervalMs", 100));
    // application/octet-stream: cpp-httplib never compresses it, so the pace is the wire's.
    res.set_content_provider(total, "application/octet-stream",
                             [waitForStop, interval](size_t offset, size_t, httplib::DataSink& sink) {
                               if (offset > 0 && waitForStop(interval)) return false;
                               std::string data = LoopbackHttpServer::PatternBytes(1, offset);
                               return sink.write(data.data(), data.size());
                             });
  });
}

}  // namespace kx::test::loopback
