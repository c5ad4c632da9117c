// SPDX-License-Identifier: Apache-2.0
// The program's log calls: priority and tag once, here.
#ifndef ZORVA_LOG_H
#define ZORVA_LOG_H

#include <android/log.h>

#define ZORVA_LOG_TAG "ZORVA"
#define LOG_I(...) __android_log_print(ANDROID_LOG_INFO, ZORVA_LOG_TAG, __VA_ARGS__)
#define LOG_W(...) __android_log_print(ANDROID_LOG_WARN, ZORVA_LOG_TAG, __VA_ARGS__)
#define LOG_E(...) __android_log_print(ANDROID_LOG_ERROR, ZORVA_LOG_TAG, __VA_ARGS__)

#endif
