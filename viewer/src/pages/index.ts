/* Which program shows which page. */
import type { PageName } from '../state/address';
import type { BeginPage } from '../ui/page';
import { requestPage, tracePage } from '../trace/page';

export const PAGE_PROGRAMS: Partial<Readonly<Record<PageName, BeginPage>>> = {
	request: requestPage,
	trace: tracePage,
};
