#pragma once

namespace velmora::collector {

// The live page served at "/": one self-contained HTML document that polls "/hits.json".
const char* PageHtml();

}  // namespace velmora::collector
