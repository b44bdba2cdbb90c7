// Logging through liblog with the system's fixed tags.
#pragma once

#include <android/log.h>

#define QUOR_TAG_SERVICE "BpfService"
#define QUOR_TAG_UTILS "BpfUtils"

#define QLOGI(tag, ...) __android_log_print(ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define QLOGW(tag, ...) __android_log_print(ANDROID_LOG_WARN, tag, __VA_ARGS__)
#define QLOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, tag, __VA_ARGS__)
