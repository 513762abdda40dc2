// com.halvern.Marquel.Status1: one read-only method that tells how the server is doing.
#include "status_method.h"

#include <unistd.h>

#include <algorithm>

#include "files/mq_ctrl.h"
#include "files/saved_pending.h"
#include "marquel/version.h"
#include "platform/key_name.h"

namespace marquel::host {

void StatusMethod::Register(sdbus::IObject& object) {
  object.registerMethod(kStatusInterface, "Status", "", {}, "s", {"json"},
                        [this](sdbus::MethodCall call) {
                          registry_.Admit(call);
                          const std::string text = StatusJson(Gather());
                          auto reply = call.createReply();
                          reply << text;
                          reply.send();
                        });
}

StatusFacts StatusMethod::Gather() {
  StatusFacts facts;
  facts.pid = getpid();
  facts.service = service_;
  facts.version = MARQUEL_VERSION;
  facts.uptime_seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_)
          .count();
  MQCtrl& ctrl = mq_.Controller();
  facts.memory = ctrl.QueryAllMemory();
  facts.resident_bytes = ResidentBytes();
  std::vector<int32_t> handles(2048);
  const int32_t count =
      ctrl.QueryAllFileHandles(handles.data(), static_cast<int32_t>(handles.size()));
  handles.resize(static_cast<size_t>(std::clamp(count, 0, 2048)));
  for (int32_t h : handles) {
    OpenFileFacts f;
    f.handle = h;
    ctrl.QueryFilename(h, &f.name);
    f.memory = ctrl.QueryOneFileMemory(h);
    int32_t programs = 0;
    if (mq_.GetMQProgramCounts(h, &programs) == S_OK && programs > 0)
      mq_.GetMQPMTPIDS(h, programs, &f.pmt_pids);
    facts.files.push_back(std::move(f));
  }
  facts.listed = ctrl.PendingFiles();
  facts.working = ctrl.WorkingFile();
  for (const SavedPendingFile& s : SavedPendingFiles())
    facts.saved.push_back(!s.path.empty() ? s.path : PathFromKeyName(s.key_name));
  return facts;
}

}  // namespace marquel::host
