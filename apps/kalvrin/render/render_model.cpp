#include "render/render_model.h"

#include "model/engine.h"
#include "model/model_file.h"
#include "runtime/model_loading.h"
#include "stream/set_up.h"

namespace Orvik::Tesmo::Tool {

void RenderModel::Load() {
  if (facts) return;
  if (!model) {
    const ModelFile file = ReadModelFile(path);
    path = file.path;
    if (!engine) engine = OpenEngine();
    model = Dnn::LoadLearningModel(*engine, file.bytes.data(), file.bytes.size());
  }
  description = Diagnosis::DescribeModel(*model);
  facts.emplace(*model);
}

std::unique_ptr<StreamProcessor> RenderModel::MakeStream(const Diagnosis::StreamRequest& settled) {
  return AssembleStream(engine, model, settled.sequenceSize, settled.channelCount,
                        settled.blockFrames);
}

}  // namespace Orvik::Tesmo::Tool
