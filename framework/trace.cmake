# The trace libraries' part of liblumo.so.
target_sources(lumo PRIVATE
  src/skein/BlockCopy.cpp
  src/skein/FileLayout.cpp
  src/skein/MsgDesc.cpp
  src/skein/OpenFiles.cpp
  src/skein/PreviousFile.cpp
  src/skein/Reader.cpp
  src/skein/Record.cpp
  src/skein/RecordClock.cpp
  src/skein/RingBuf.cpp
  src/skein/Snapshot.cpp
  src/skein/TraceFile.cpp
  src/skein/UnnamedFile.cpp
  src/trace/KernelThreadId.cpp
  src/trace/LineStream.cpp
  src/trace/TraceHelper.cpp
  src/trace/TraceOutput.cpp
  src/trace/TraceRegistry.cpp
  src/twine/Twine.cpp)
