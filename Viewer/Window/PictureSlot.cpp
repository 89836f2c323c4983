#include "Viewer/Window/PictureSlot.h"

#include <utility>

namespace velmora {

void PictureSlot::enqueue(const DisplaySample& sample) {
    {
        const std::lock_guard guard(lock_);
        if (std::exchange(newest_, sample.picture)) return;  // its delivery takes this one
    }
    main_.post([self = shared_from_this()] { self->deliver(); });
}

void PictureSlot::deliver() {
    SharedPicture picture;
    {
        const std::lock_guard guard(lock_);
        picture = std::move(newest_);
        newest_ = nullptr;
    }
    if (onPicture) onPicture(std::move(picture));
}

}  // namespace velmora
