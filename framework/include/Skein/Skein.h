#pragma once

#include <Skein/MsgDesc.h>
#include <Skein/Reader.h>
#include <Skein/RingBuf.h>
#include <Skein/TraceFile.h>
#include <Skein/TraceHandle.h>
