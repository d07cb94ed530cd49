/* What is put back after a bailout that ended at a call. What a script sees of it is tested where
 * scripts are run. */
#include "engine.h"

#include "util/memory_limit.h"
#include "util/swallowed_bailout.h"

class SwallowedBailout : public EngineTest {
protected:
	void SetUp() override {
		EngineTest::SetUp();
		start_request();
		kaq_note_engine_state(&before_);
	}

	void TearDown() override {
		kaq_return_from_bailout(&before_);
		kaq_forget_engine_state(&before_);
		EngineTest::TearDown();
	}

	/* A page of the stack of frames, in use from now on. */
	static zend_vm_stack new_page(zend_vm_stack prev) {
		const size_t size = 64 * 1024;
		zend_vm_stack page = (zend_vm_stack)emalloc(size);
		page->top = (zval *)(page + 1);
		page->end = (zval *)((char *)page + size);
		page->prev = prev;
		EG(vm_stack) = page;
		EG(vm_stack_top) = page->top;
		EG(vm_stack_end) = page->end;
		return page;
	}

	void expect_stack_of_before() const {
		EXPECT_EQ(before_.page, EG(vm_stack));
		EXPECT_EQ(before_.top, EG(vm_stack_top));
		EXPECT_EQ(before_.end, EG(vm_stack_end));
	}

	kaq_engine_state before_;
};

TEST_F(SwallowedBailout, StateOfTheEngineIsThatOfBefore) {
	EG(error_reporting) = E_ALL & ~E_NOTICE;
	EG(error_handling) = EH_NORMAL;
	EG(exception_class) = nullptr;
	KAQ_SCOPE = zend_ce_exception;
	kaq_set_running_trace(7);
	const uint32_t trace = kaq_running_trace();
	kaq_memory_limit_lift();
	kaq_engine_state state;
	kaq_note_engine_state(&state);
	EG(error_reporting) = 0;
	EG(error_handling) = EH_THROW;
	EG(exception_class) = zend_ce_exception;
	KAQ_SCOPE = nullptr;
	kaq_set_running_trace(8);
	kaq_memory_limit_lift();
	kaq_memory_limit_lift();
	kaq_return_from_bailout(&state);
	EXPECT_EQ(E_ALL & ~E_NOTICE, EG(error_reporting));
	EXPECT_EQ(EH_NORMAL, EG(error_handling));
	EXPECT_EQ(nullptr, EG(exception_class));
	EXPECT_EQ(zend_ce_exception, KAQ_SCOPE);
	EXPECT_EQ(trace, kaq_running_trace());
	EXPECT_EQ(1, kaq_memory_limit_sections());
	kaq_forget_engine_state(&state);
}

TEST_F(SwallowedBailout, PagesThatLeadToTheOneOfBeforeAreFreed) {
	size_t used = zend_memory_usage(0);
	new_page(new_page(EG(vm_stack)));
	kaq_return_from_bailout(&before_);
	expect_stack_of_before();
	EXPECT_EQ(used, zend_memory_usage(0));
}

TEST_F(SwallowedBailout, PagesThatDoNotLeadThereAreLeftToTheirOwner) {
	zend_vm_stack root = new_page(nullptr);
	zend_vm_stack page = new_page(root);
	size_t used = zend_memory_usage(0);
	kaq_return_from_bailout(&before_);
	expect_stack_of_before();
	EXPECT_EQ(used, zend_memory_usage(0));
	EXPECT_EQ(root, page->prev);
	efree(page);
	efree(root);
}
