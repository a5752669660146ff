#include "checkin/SharedIdReleaser.h"

bool SharedIdReleaser::Init() { return IsReady(); }

bool SharedIdReleaser::UpdateCorvinCred() { return false; }
