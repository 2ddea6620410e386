// SearchResultParserLambda is the search result parser for callers who would rather pass a function than
// derive a class: every hit goes to the function given at construction, with the arguments of
// SearchResultParserInterface::onNewDocument.
//
//   std::vector<std::string> ids;
//   kx::elasticsearch::SearchResultParserLambda parser(
//       [&](const std::string& id, const std::string&, const std::string&, const std::string&,
//           const std::string&, const int64_t*) { ids.push_back(id); });
//
// The function must not be empty: calling an empty one throws std::bad_function_call, as std::function
// does. Thread-safety and ownership: as SearchResultParserInterface; the function is owned by the parser.
#pragma once

#include <kx/elasticsearch/SearchResultParserInterface.h>
#include <kx/system/kxExport.h>

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace kx {
namespace elasticsearch {

class KX_EXPORT SearchResultParserLambda : public SearchResultParserInterface {
 public:
  using DocumentFunction = std::function<void(const std::string& id, const std::string& source,
                                              const std::string& score, const std::string& highlight,
                                              const std::string& type, const int64_t* timestamp)>;

  explicit SearchResultParserLambda(DocumentFunction function) : function_(std::move(function)) {}

  void onNewDocument(const std::string& id, const std::string& source, const std::string& score,
                     const std::string& highlight, const std::string& type, const int64_t* timestamp) override;

 private:
  DocumentFunction function_;
};

}  // namespace elasticsearch
}  // namespace kx
