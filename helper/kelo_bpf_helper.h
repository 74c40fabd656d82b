// The helper module in one include: string helpers, attach tables and attach
// helpers.
#pragma once

#include "helper/kelo_bpf_attach_tables.h"
#include "helper/kelo_bpf_helper_attach.h"
#include "helper/kelo_bpf_helper_strings.h"
