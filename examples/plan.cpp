// The wanted switch in a program of one's own: what a document would change on a switch.
// Start a daemon first, for one: bessd-standin. Usage: example_plan FILE [PORT]

#include <iostream>
#include <string>

#include <Norv/State/Document.h>
#include <Norv/State/LiveSwitch.h>
#include <Norv/State/Plan.h>

using namespace Norv::State;

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: example_plan FILE [PORT]\n";
    return 1;
  }
  try {
    const std::string address = std::string("127.0.0.1:") + (argc > 2 ? argv[2] : "10514");
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(-1);  // a large switch tells much in one reply
    const LiveSwitch live = readSwitch(
        grpc::CreateCustomChannel(address, grpc::InsecureChannelCredentials(), arguments));
    const Document document = readFiles({argv[1]}, live.offer);
    for (const Problem& problem : checkReferences(document, &live)) {
      std::cerr << text(problem.mark) << ": " << problem.text << '\n';
    }
    const Plan plan = makePlan(live, document.wanted);
    for (const Change& change : plan.changes) std::cout << text(change.object) << '\n';
    std::cout << plan.commands() << " commands\n";
  } catch (const std::exception& error) {  // of the switch or the document, with its place
    std::cerr << error.what() << '\n';
    return 1;
  }
}
