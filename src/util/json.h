#pragma once

// Every use of RapidJSON in the tool includes it through this header: the
// common library's, so that one assertion hook and one parser set-up hold for
// the whole program.
#include "zelkor/json.h"
