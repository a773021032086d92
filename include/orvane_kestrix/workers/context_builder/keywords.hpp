#pragma once

#include <string>
#include <vector>

#include "orvane_kestrix/workers/retrieval.hpp"

namespace orvane_kestrix {

// The task's keywords: its names lowercased, then its terms, each once, none shorter than
// MIN_KEYWORD code points.
std::vector<std::string> task_keywords(const std::string& task, Tokenizer& tokenizer);

}  // namespace orvane_kestrix
