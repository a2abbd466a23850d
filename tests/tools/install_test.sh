#!/bin/sh
# install_test.sh CMAKE BUILD SOURCES: an installation in a folder of its own: its programs start, the
# manual and the completions are there, and programs of a few lines build against it, with the
# compiler's usual standard: an agent, a test with a stand-in in it, and one with the wanted state.
set -eu
cmake=$1
build=$2
sources=$3
folder=$(mktemp -d "${TMPDIR:-/tmp}/norv-install-XXXXXX")
folder=$(cd "$folder" && pwd -P)
trap 'rm -rf "$folder"' EXIT
"$cmake" --install "$build" --prefix "$folder/norv" >"$folder/log"

env -u LD_LIBRARY_PATH "$folder/norv/bin/norvctl" --version
env -u LD_LIBRARY_PATH "$folder/norv/bin/bessd-standin" --version
env -u LD_LIBRARY_PATH "$folder/norv/bin/norvd" --version
env -u LD_LIBRARY_PATH "$folder/norv/bin/skein" --help >"$folder/log"
mv "$folder/norv" "$folder/moved"
"$folder/moved/bin/norvctl" run --standin --quiet "$sources/examples/first-light.jsonl" || [ $? -eq 2 ]
grep -qF "ExecStart=$folder/norv/bin/norvd " "$folder/moved/lib/systemd/system/norvd.service" || {
  echo "norvd.service does not start the norvd that was installed" >&2
  exit 1
}
for file in share/man/man8/norvd.8 lib/systemd/system/norvd.service share/man/man1/norvctl.1 share/man/man1/norvctl-run.1 \
  share/man/man1/skein.1 share/man/man1/bessd-standin.1 \
  share/bash-completion/completions/norvctl share/zsh/site-functions/_norvctl \
  share/norv/wanted-state.schema.json; do
  [ -s "$folder/moved/$file" ] || {
    echo "there is no $file" >&2
    exit 1
  }
done

mkdir "$folder/agent"
cat >"$folder/agent/CMakeLists.txt" <<'LISTS'
cmake_minimum_required(VERSION 3.22)
project(agent CXX)
find_package(norv REQUIRED)
add_executable(agent embed.cpp)
target_link_libraries(agent norv::norv)
add_executable(with_standin with_standin.cpp)
target_link_libraries(with_standin norv::standin)
add_executable(plan plan.cpp)
target_link_libraries(plan norv::state)
add_executable(kit kit.cpp)
target_link_libraries(kit norv::agent)
LISTS
python3 -B "$sources/tests/docs/listings.py" "$folder/agent" "$sources/docs/embedding.md" >"$folder/log"
cp "$sources/examples/embed.cpp" "$sources/examples/plan.cpp" "$folder/agent"
cat >"$folder/agent/with_standin.cpp" <<'PROGRAM'
#include <Standin/Server.h>
int main() {
  Standin::Options options;
  options.listen = "127.0.0.1:0";
  Standin::Server server(options);
  server.addFault(Standin::Fault::parse("kind=error rpc=createModule"));
  return server.port() > 0 && server.faults().size() == 1 ? 0 : 1;
}
PROGRAM
"$cmake" -S "$folder/agent" -B "$folder/agent/build" -DCMAKE_PREFIX_PATH="$folder/moved" >"$folder/log"
"$cmake" --build "$folder/agent/build" >"$folder/log" || {
  tail -n 20 "$folder/log" >&2
  exit 1
}
"$folder/agent/build/with_standin"

# The same versions go together by SONAME and by CMake's file: those with the same first number.
config=$(find "$folder/moved" -name norvConfigVersion.cmake)
version=$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' "$config")
cat >"$folder/version.cmake" <<'SCRIPT'
set(PACKAGE_FIND_VERSION ${WANTED})
string(REGEX MATCHALL "[0-9]+" numbers ${WANTED})
list(GET numbers 0 PACKAGE_FIND_VERSION_MAJOR)
include(${CONFIG})
message("${PACKAGE_VERSION_COMPATIBLE}")
SCRIPT
goes_with() {
  [ "$("$cmake" -DCONFIG="$config" -DWANTED="$1" -P "$folder/version.cmake" 2>&1)" = TRUE ]
}
major=${version%%.*}
for library in lumo bessgrpc norv; do
  readelf -dW "$(dirname "$config")/../../lib$library.so" | grep -q "SONAME.*\[lib$library.so.$major\]" || {
    echo "the SONAME of lib$library.so is not lib$library.so.$major" >&2
    exit 1
  }
done
if ! goes_with "$major.0.0" || ! goes_with "$version" || goes_with $((major + 1)).0.0; then
  echo "$config goes with other versions than lib*.so.$major" >&2
  exit 1
fi

PKG_CONFIG_PATH=$(dirname "$(find "$folder/moved" -name norv_standin.pc)")
export PKG_CONFIG_PATH
# Who uses norv links what it calls: its messages, and not gRPC.
case " $(pkg-config --libs norv) " in
  *" -lgrpc"*)
    echo "norv.pc has its users link gRPC" >&2
    exit 1
    ;;
  *" -lbessgrpc "*"-lprotobuf "*) ;;
  *)
    echo "norv.pc lacks the messages: $(pkg-config --libs norv)" >&2
    exit 1
    ;;
esac
# shellcheck disable=SC2046 # several words are wanted
c++ "$sources/examples/embed.cpp" -o "$folder/embed" $(pkg-config --cflags --libs norv)
# shellcheck disable=SC2046 # several words are wanted
c++ "$folder/agent/with_standin.cpp" -o "$folder/with_standin" \
  $(pkg-config --cflags --libs norv_standin)
LD_LIBRARY_PATH="$(dirname "$PKG_CONFIG_PATH")" "$folder/with_standin"

# shellcheck disable=SC2046 # several words are wanted
c++ "$sources/examples/plan.cpp" -o "$folder/plan" $(pkg-config --cflags --libs norv_state)
# shellcheck disable=SC2046 # several words are wanted
c++ "$folder/agent/kit.cpp" -o "$folder/kit" $(pkg-config --cflags --libs norv_agent)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir norv_state)
export LD_LIBRARY_PATH

"$folder/moved/bin/bessd-standin" --listen 127.0.0.1:0 >"$folder/address" &
daemon=$!
trap 'kill $daemon; rm -rf "$folder"' EXIT
until [ -s "$folder/address" ]; do kill -0 $daemon; done
port=$(sed 's/.*://' "$folder/address")
for plan in "$folder/agent/build/plan" "$folder/plan"; do
  "$plan" "$sources/examples/first-light.yaml" "$port" >"$folder/log"
  grep -q '^14 commands$' "$folder/log" || {
    cat "$folder/log" >&2
    exit 1
  }
done
for kit in "$folder/agent/build/kit" "$folder/kit"; do "$kit" "$port" >"$folder/log"; done
echo "installed, moved, and built against"
