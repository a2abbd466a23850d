#pragma once

#include <Lumo/Lock.h>  // ActivityLockAnchor is defined beside the lock it works with
