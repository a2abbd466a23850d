#pragma once

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include <Norv/State/Switch.h>

// The wanted switch as a document, YAML or JSON; docs/wanted-state.md describes it.
namespace Norv::State {

// Where something stands in a file; line and column from 1.
struct Mark {
  std::string file;
  std::size_t line = 0;
  std::size_t column = 0;
};
// "FILE:LINE:COLUMN".
std::string text(const Mark& mark);

// What is wrong with a document, at its place.
struct Problem {
  Problem(Mark place, std::string what) : mark(std::move(place)), text(std::move(what)) {}
  Mark mark;
  std::string text;
};

// So many problems are worth showing; those after them have no proposals.
inline constexpr std::size_t shownProblems = 20;

class DocumentError : public std::runtime_error {
 public:
  explicit DocumentError(std::vector<Problem> problems);
  // In the order of the files; never empty.
  const std::vector<Problem>& problems() const { return problems_; }

 private:
  const std::vector<Problem> problems_;
};

struct Document {
  Switch wanted;
  std::map<Object, Mark> marks;  // where each object is stated
};

struct Source {
  std::string name;  // of the file, as a person is told
  std::string text;
};

struct LiveSwitch;

// What a daemon has beyond what is known here, from plugins.
struct Offer {
  std::set<std::string> moduleClasses;
  std::set<std::string> drivers;
};

// Reads one document from several files. Names of classes, drivers, policies and fields, values and
// gates are checked; what is referred to is not, see checkReferences. Throws DocumentError.
Document readDocument(const std::vector<Source>& sources, const Offer& offer = {});
// The same from files, "-" for standard input; one that cannot be read is a problem, too.
Document readFiles(const std::vector<std::string>& files, const Offer& offer = {});

// Everything that the document refers to and that neither it nor the live switch has. `live` is
// null when there is none to look at. With `prune` nothing of it will stay but workers, where the
// document does not speak of them.
std::vector<Problem> checkReferences(const Document& document, const LiveSwitch* live,
                                     bool prune = false);

// Gates that modules name and their classes do not have: a daemon may take another in their place.
std::vector<std::string> gateWarnings(const Switch& wanted);

// The one canonical form: two equal switches are written with the same bytes. What is not told is
// said in a comment beside its object, with what `notes` says of ports and modules; `notTold` gets
// the same, for a person.
using Notes = std::map<Object, std::string>;
std::string yaml(const Switch& described, std::vector<std::string>* notTold = nullptr,
                 const Notes& notes = {});
std::string json(const Switch& described);

// The JSON schema of documents, for editors.
std::string jsonSchema();

}  // namespace Norv::State
