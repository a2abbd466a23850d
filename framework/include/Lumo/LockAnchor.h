#pragma once

#include <Lumo/Lock.h>  // LockAnchor is defined beside the lock it works with
