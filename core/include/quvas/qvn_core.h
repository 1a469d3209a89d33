// qvn_core.h - umbrella header of libqvn_core.
#ifndef QUVAS_QVN_CORE_H
#define QUVAS_QVN_CORE_H

#include <quvas/export.h>
#include <quvas/kernel/functional.h>
#include <quvas/kernel/image_process.h>
#include <quvas/runtime/tensor.h>
#include <quvas/utility/log.h>

#endif  // QUVAS_QVN_CORE_H
