#!/bin/sh
# install_test.sh CMAKE BUILD SOURCES: an installation in a folder of its own: its programs start, the
# manual and the completions are there, and a program of a few lines builds against it, with the
# compiler's usual standard.
set -eu
cmake=$1
build=$2
sources=$3
folder=$(mktemp -d "${TMPDIR:-/tmp}/norv-install-XXXXXX")
trap 'rm -rf "$folder"' EXIT
"$cmake" --install "$build" --prefix "$folder/norv" >"$folder/log"

env -u LD_LIBRARY_PATH "$folder/norv/bin/norvctl" --version
env -u LD_LIBRARY_PATH "$folder/norv/bin/bessd-standin" --version
env -u LD_LIBRARY_PATH "$folder/norv/bin/norvd" --version
env -u LD_LIBRARY_PATH "$folder/norv/bin/skein" --help >"$folder/log"
mv "$folder/norv" "$folder/moved"
"$folder/moved/bin/norvctl" run --standin --quiet "$sources/examples/first-light.jsonl" || [ $? -eq 2 ]
for file in share/man/man8/norvd.8 lib/systemd/system/norvd.service share/man/man1/norvctl.1 share/man/man1/norvctl-run.1 \
  share/bash-completion/completions/norvctl share/zsh/site-functions/_norvctl; do
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
LISTS
cp "$sources/examples/embed.cpp" "$folder/agent"
"$cmake" -S "$folder/agent" -B "$folder/agent/build" -DCMAKE_PREFIX_PATH="$folder/moved" >"$folder/log"
"$cmake" --build "$folder/agent/build" >"$folder/log" || {
  tail -n 20 "$folder/log" >&2
  exit 1
}
echo "installed, moved, and built against"
