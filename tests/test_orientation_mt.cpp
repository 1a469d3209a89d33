// The face mirror table is built by whichever thread mirrors a face first.
// Several threads race to be that thread here; each mirrors records of its
// own and must get the same, correct result. Run under ThreadSanitizer.
//
// This file holds a single test so that the race really is the process's
// first face mirror.
#include <qvn_kit/qvn_kit.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

TEST(FaceMirrorThreads, ConcurrentFirstMirrorsAgree) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 50;
    // Landmark k holds (k, 1000 + k) / 1024 and score k, so that a mirrored
    // face names, in every slot, which landmark it came from.
    auto base = std::make_unique<QVN_FaceFrameDataArr>();
    base->count = QVN_MAX_FACE_NUM;
    for (auto& face : base->faces) {
        face.landmarksNum = QVN_FACE_LANDMARK_NUM;
        face.sidePair[0] = 1;
        face.sidePair[1] = 2;
        for (int k = 0; k < QVN_FACE_LANDMARK_NUM; ++k) {
            face.landmarks[k] = {k / 1024.0f, (1000 + k) / 1024.0f};
            face.landmarkScores[k] = static_cast<float>(k);
        }
    }
    std::atomic<int> waiting{kThreads};
    std::vector<std::unique_ptr<QVN_FaceFrameDataArr>> once(kThreads), twice(kThreads);
    std::vector<int> status(kThreads, -100);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        once[t] = std::make_unique<QVN_FaceFrameDataArr>(*base);
        twice[t] = std::make_unique<QVN_FaceFrameDataArr>(*base);
        threads.emplace_back([&, t] {
            // Start together so that the first calls overlap.
            waiting.fetch_sub(1);
            while (waiting.load() > 0) std::this_thread::yield();
            int s = QVN_FaceFrameDataArr_Result_Mirror(once[t].get());
            for (int r = 0; r < kRounds && s == 0; ++r) {
                s = QVN_FaceFrameDataArr_Result_Mirror(twice[t].get());
            }
            status[t] = s;
        });
    }
    for (auto& th : threads) th.join();

    // Partners as the face is drawn: the jaw chain 0-32 reverses about 16.
    for (int t = 0; t < kThreads; ++t) {
        SCOPED_TRACE(t);
        EXPECT_EQ(status[t], 0);
        const QVN_Face& face = once[t]->faces[QVN_MAX_FACE_NUM - 1];
        for (int k = 0; k <= 32; ++k) {
            EXPECT_EQ(face.landmarkScores[k], static_cast<float>(32 - k));
            EXPECT_EQ(face.landmarks[k].x, 1.0f - (32 - k) / 1024.0f);
        }
        EXPECT_EQ(face.sidePair[0], 2);
        // Every thread's single mirror is the same, byte for byte.
        EXPECT_EQ(std::memcmp(once[t].get(), once[0].get(), sizeof(QVN_FaceFrameDataArr)), 0);
        // An even number of mirrors of a full face gives it back.
        EXPECT_EQ(std::memcmp(twice[t].get(), base.get(), sizeof(QVN_FaceFrameDataArr)), 0);
    }
}

}  // namespace
