// The priority list: descending order, newest first among equals, and
// unlinking by predicate, against a model.
#include "qel_plist.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/test_util.h"

namespace {

using Nodes = std::vector<qel_plist_node *>;

Nodes linked(qel_plist_node *head)
{
    Nodes out;
    for (qel_plist_node *n = head->next; n; n = n->next)
        out.push_back(n);
    return out;
}

// The head takes the maximum priority; the first add links the node without
// writing its next (callers pass nodes whose next is null).
TEST(Plist, HeadInitAndFirstAdd)
{
    qel_plist_node stale, head{&stale, 0}, n{&stale, 1};
    qel_plist_head_init(&head);
    EXPECT_EQ(nullptr, head.next);
    EXPECT_EQ(2147483647, head.priority);
    qel_plist_add(&n, &head);
    EXPECT_EQ(&n, head.next);
    EXPECT_EQ(&stale, n.next);
    qel_plist_head_init(nullptr);
    qel_plist_add(nullptr, &head);
    qel_plist_add(&n, nullptr);
}

int odd_priority(qel_plist_node *n, void *calls)
{
    ++*static_cast<int *>(calls);
    return n->priority & 1;
}

// Descending priority, newest first among equals, extremes included; then
// every node is offered once to the delete predicate.
TEST(Plist, RandomAddsAndDeletesAgainstModel)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<qel_plist_node> nodes(3000);
    qel_plist_node head;
    qel_plist_head_init(&head);
    Nodes model;
    for (size_t i = 0; i < nodes.size(); ++i) {
        int32_t priority = static_cast<int32_t>(rng.range(0, 40)) - 20;
        if (rng.chance(2))
            priority = rng.chance(50) ? INT32_MAX : INT32_MIN;
        nodes[i] = {nullptr, priority};
        qel_plist_add(&nodes[i], &head);
        auto at = model.begin();
        while (at != model.end() && (*at)->priority > priority)
            ++at;
        model.insert(at, &nodes[i]);
        if (i % 97 == 0) {
            ASSERT_EQ(model, linked(&head));
        }
    }
    int calls = 0;
    qel_plist_del(&head, odd_priority, &calls);
    EXPECT_EQ(static_cast<int>(nodes.size()), calls);
    std::erase_if(model, [](qel_plist_node *n) { return n->priority & 1; });
    EXPECT_EQ(model, linked(&head));
    qel_plist_del(&head, nullptr, nullptr);
    qel_plist_del(nullptr, odd_priority, &calls);
}

} // namespace
