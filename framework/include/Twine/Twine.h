#pragma once

#include <Twine/Point.h>
#include <Twine/SkeinConverter.h>
