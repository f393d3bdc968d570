// The corpus folder every benchmark reads: $LM_CORPUS_DIR when set and not
// empty, else the folder given at configure time (cmake -DLM_CORPUS_DIR=...,
// by default shared/corpus beside the source tree); and what is in it.
#pragma once
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kit/unicode.h"
#include "kit/value.h"

inline std::string lmCorpusDir() {
  const char* dir = std::getenv("LM_CORPUS_DIR");
  return dir && *dir ? std::string(dir) : std::string(LM_CORPUS_DIR);
}

// The "file" values of the folder's manifest.jsonl, in order (relative to
// the folder); empty without a manifest.
inline std::vector<std::string> lmCorpusManifestFiles(const std::string& corpus) {
  std::vector<std::string> files;
  std::ifstream in(corpus + "/manifest.jsonl");
  for (std::string line; std::getline(in, line);) {
    auto value = LMValue::fromJSONData(line);
    if (value && value->at(u"file").asString()) files.push_back(lmUtf8(value->at(u"file").toString()));
  }
  return files;
}

// The bytes of the file at `path`; empty when it cannot be read.
inline LMData lmReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return LMData((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}
