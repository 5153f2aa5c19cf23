// The priority list: descending order, newest first among equals, and
// unlinking by predicate, against a model.
#include "qel_plist.h"

#include <gtest/gtest.h>

#include <vector>

#include "support/test_util.h"

namespace {

struct Obj {
    qel_plist_node node; // first, so a node pointer is the object's
    int id;
};

std::vector<int> ids(qel_plist_node *head)
{
    std::vector<int> out;
    for (qel_plist_node *n = head->next; n; n = n->next)
        out.push_back(reinterpret_cast<Obj *>(n)->id);
    return out;
}

TEST(Plist, HeadInitSetsMaximumPriority)
{
    qel_plist_node head{reinterpret_cast<qel_plist_node *>(&head), 0};
    qel_plist_head_init(&head);
    EXPECT_EQ(nullptr, head.next);
    EXPECT_EQ(2147483647, head.priority);
    qel_plist_head_init(nullptr);
}

TEST(Plist, NewNodeGoesBeforeOlderEqualOnes)
{
    qel_plist_node head;
    qel_plist_head_init(&head);
    Obj a{{nullptr, 5}, 1}, b{{nullptr, 9}, 2}, c{{nullptr, 5}, 3};
    qel_plist_add(&a.node, &head);
    qel_plist_add(&b.node, &head);
    qel_plist_add(&c.node, &head);
    EXPECT_EQ((std::vector<int>{2, 3, 1}), ids(&head));
}

TEST(Plist, FirstAddDoesNotWriteTheNodesNext)
{
    qel_plist_node head;
    qel_plist_head_init(&head);
    qel_plist_node stale;
    qel_plist_node n{&stale, 1};
    qel_plist_add(&n, &head);
    EXPECT_EQ(&n, head.next);
    EXPECT_EQ(&stale, n.next); // callers pass nodes whose next is null
    qel_plist_add(nullptr, &head);
    qel_plist_add(&n, nullptr);
}

int is_odd(qel_plist_node *n, void *context)
{
    ++*static_cast<int *>(context);
    return reinterpret_cast<Obj *>(n)->id & 1;
}

TEST(Plist, RandomAddsAndDeletesAgainstModel)
{
    qeltest::Rng rng;
    SCOPED_TRACE(rng.seed());
    std::vector<Obj> objs(3000);
    qel_plist_node head;
    qel_plist_head_init(&head);
    std::vector<Obj *> model; // descending priority, newest first among equals
    for (size_t i = 0; i < objs.size(); ++i) {
        Obj *o = &objs[i];
        o->node.next = nullptr;
        o->node.priority = static_cast<int32_t>(rng.range(0, 40)) - 20;
        if (rng.chance(2))
            o->node.priority = rng.chance(50) ? INT32_MAX : INT32_MIN;
        o->id = static_cast<int>(i);
        qel_plist_add(&o->node, &head);
        auto at = model.begin();
        while (at != model.end() && (*at)->node.priority > o->node.priority)
            ++at;
        model.insert(at, o);
        if (i % 97 == 0) {
            std::vector<int> want;
            for (Obj *m : model)
                want.push_back(m->id);
            ASSERT_EQ(want, ids(&head));
        }
    }
    int calls = 0;
    qel_plist_del(&head, is_odd, &calls);
    EXPECT_EQ(static_cast<int>(objs.size()), calls);
    std::vector<int> want;
    for (Obj *m : model)
        if ((m->id & 1) == 0)
            want.push_back(m->id);
    EXPECT_EQ(want, ids(&head));
    qel_plist_del(&head, nullptr, nullptr);
    qel_plist_del(nullptr, is_odd, &calls);
}

} // namespace
