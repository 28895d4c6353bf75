#include "oneOperation.h"

#include <unistd.h>

#include <algorithm>

#include "arena.h"
#include "floor.h"

using namespace bench;

namespace {

constexpr size_t BYTES = 4096;
constexpr size_t WARM_UPS = 200;  // enough that a tree has grown its levels

struct Client {
  Session& session;
  Bytes payload;
  Buffer buffer;
};

struct Step {
  const char* name;
  void (*call)(const Client&, size_t segment);
};

constexpr Step STEPS[] = {
    {"create", [](const Client& c, size_t segment) { c.session.create(segment, c.payload, false); }},
    {"read", [](const Client& c, size_t segment) { require(c.session.read(segment, 0, c.buffer), "read"); }},
    {"overwrite", [](const Client& c, size_t segment) { c.session.overwrite(segment, c.payload); }},
    {"delete", [](const Client& c, size_t segment) { c.session.remove(segment); }},
};

void mark(const std::string& text) {
  require(write(STDERR_FILENO, text.data(), text.size()) == std::ssize(text), "write");
}

}  // namespace

// Neither inlined nor renamed: callgrind is told to collect inside it.
extern "C" __attribute__((noinline)) void measured(const Client& client, const Step& step) {
  step.call(client, WARM_UPS);
}

int bench::runOne(const std::string& parent, const std::string& contender) {
  const std::vector<Contender> all = contenders();
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const Contender& c) { return c.name == contender; });
  if (found == all.end()) return 2;

  const WorkDir dir(parent);
  const Guids guids = makeGuids(WARM_UPS + 1);
  const std::vector<unsigned char> payload(BYTES, 'p');
  std::vector<unsigned char> buffer(BYTES);
  if (found->isOnVolume) makeFloor(dir.path(), guids);  // so that every directory is there
  const std::unique_ptr<Store> store = found->make(dir.path(), guids);
  const std::unique_ptr<Session> session = store->session();
  const Client client{*session, payload, buffer};
  store->activate(true);
  for (const Step& step : STEPS) {
    for (size_t segment = 0; segment < WARM_UPS; ++segment) step.call(client, segment);
    mark(std::string(step.name) + '\n');
    measured(client, step);
    mark("end\n");
    store->settle();
  }
  store->activate(false);
  return 0;
}
