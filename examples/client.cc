// A short client of the lmreceipt service: sends each file named on the
// command line to the service (which is started when nothing listens) and
// prints gross, net, tax, currency and date of its result as one JSON line.
//
//   c++ client.cc $(pkg-config --cflags --libs lmreceipt-client) -o client
//   ./client receipt.pdf
#include <fstream>
#include <iostream>
#include <iterator>

#include "service/xpc_client.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: " << argv[0] << " FILE...\n";
    return 2;
  }
  // Queues the warm-up call, which starts the service ahead of the first file.
  LMXPC service("lmreceipt-service");
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    std::ifstream file(argv[i], std::ios::binary);
    LMData bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    LMDictionary task;
    task.set(u"data", LMValue(std::move(bytes)));
    task.set(u"taxes", LMArray{LMValue(19), LMValue(7)});
    service.performXPCSynchronousWithObject(
        task, [&](const LMValue& result, const std::optional<LMXPCError>& error) {
          if (error) {
            std::cout << argv[i] << ": " << lmXPCErrorDescription(error) << "\n";
            status = 1;
            return;
          }
          LMDictionary shown;
          for (const char16_t* key : {u"gross", u"net", u"tax", u"currency", u"date"}) {
            shown.set(key, result.at(key));
          }
          std::cout << argv[i] << ": " << LMValue(shown).jsonObject().toJSONData().value_or("{}")
                    << "\n";
        });
  }
  return status;
}
