#pragma once

#include <Lumo/Lock.h>  // Condition is defined beside the lock it works with
