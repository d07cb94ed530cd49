/* What can be wrong with how a page looks, measured from its boxes. Runs within the page. */

/* Texts that are cut off without a way to read them whole, and boxes that lie over each other. */
export function layoutProblems() {
	const problems = [];
	const name = (element) => `${element.tagName.toLowerCase()}.${element.className?.baseVal ?? element.className}: ${(element.textContent ?? '').trim().slice(0, 40)}`;
	// What is clipped away is there for those who do not see it.
	const isForListeners = (element) => element !== null && (getComputedStyle(element).clipPath !== 'none' || isForListeners(element.parentElement));
	const isShown = (element) => {
		const style = getComputedStyle(element);
		return style.visibility !== 'hidden' && element.checkVisibility() && element.getClientRects().length > 0 && !element.closest('.skip, [hidden], .u-wrap') && !isForListeners(element);
	};
	if (document.documentElement.scrollWidth > innerWidth) {
		problems.push(`the page is ${document.documentElement.scrollWidth - innerWidth} pixels too wide`);
	}
	const texts = [];
	const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
	for (let node = walker.nextNode(); node; node = walker.nextNode()) {
		const element = node.parentElement;
		if (node.data.trim() && element && isShown(element) && !element.closest('option, script, style, noscript, caption, dialog')) {
			const range = document.createRange();
			range.selectNodeContents(node);
			for (const box of range.getClientRects()) {
				if (box.width > 1 && box.height > 1) {
					texts.push({ element, box });
				}
			}
		}
	}
	// What scrolls or says by an ellipsis that there is more is meant to be cut.
	const isMeant = (element) => {
		for (let each = element; each && each !== document.body; each = each.parentElement) {
			const style = getComputedStyle(each);
			if (style.textOverflow === 'ellipsis' || style.overflowX === 'auto' || style.overflowY === 'auto' || style.webkitLineClamp !== 'none') {
				return true;
			}
		}
		return false;
	};
	for (const { element, box } of texts) {
		for (let each = element; each && each !== document.body; each = each.parentElement) {
			const style = getComputedStyle(each);
			const outer = each.getBoundingClientRect();
			const isCut = style.overflowX === 'hidden' && (box.right > outer.right + 1 || box.left < outer.left - 1);
			if (isCut && !isMeant(element)) {
				problems.push(`cut off: ${name(element)}`);
				break;
			}
		}
	}
	const plain = texts.filter(({ element }) => !element.closest('[aria-hidden="true"]') && !isMeant(element));
	plain.sort((one, other) => one.box.top - other.box.top);
	plain.forEach((one, i) => {
		for (let j = i + 1; j < plain.length && plain[j].box.top < one.box.bottom - 3; j++) {
			const other = plain[j];
			const across = Math.min(one.box.right, other.box.right) - Math.max(one.box.left, other.box.left);
			const down = Math.min(one.box.bottom, other.box.bottom) - Math.max(one.box.top, other.box.top);
			const isHeader = one.element.closest('.top') !== null || other.element.closest('.top') !== null;
			if (across > 2 && down > 4 && !isHeader && one.element !== other.element) {
				problems.push(`overlap: ${name(one.element)} and ${name(other.element)}`);
			}
		}
	});
	return [...new Set(problems)];
}

/* Lines that lie under boxes of services that they do not belong to. Runs within the page. */
export function linesUnderBoxes() {
	const boxes = [...document.querySelectorAll('.map-node')].map((box) => ({ name: box.textContent.slice(0, 20), left: box.offsetLeft, right: box.offsetLeft + box.offsetWidth, top: box.offsetTop, bottom: box.offsetTop + box.offsetHeight }));
	const found = [];
	for (const path of document.querySelectorAll('.map-line')) {
		const length = path.getTotalLength();
		for (let at = 4; at < length - 4; at += 3) {
			const { x, y } = path.getPointAtLength(at);
			const under = boxes.find((box) => x > box.left + 1 && x < box.right - 1 && y > box.top && y < box.bottom);
			if (under) {
				found.push(`${Math.round(x)} ${Math.round(y)} under ${under.name}`);
				break;
			}
		}
	}
	return found;
}
