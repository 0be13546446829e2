#pragma once

#include "base/thread.h"

// The signal monitor of one Tuner: polls the frontend until the Tuner is destroyed. Created and deleted by Tuner.
class KELVO_EXPORT TunerMonitorThread final : public COrbelThreadKelvo {
 public:
  using COrbelThreadKelvo::COrbelThreadKelvo;

 protected:
  void Execute(void* arg) override;
};
