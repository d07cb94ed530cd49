/* Which program shows which page. */
import type { PageName } from '../state/address';
import type { BeginPage } from '../ui/page';
import { comparePage } from './compare';
import { doctorPage } from './doctor';
import { errorsPage } from './errors';
import { externalPage } from './external';
import { livePage } from './live';
import { mapPage } from './map';
import { overviewPage } from './overview';
import { queriesPage } from './queries';
import { searchPage } from './search';
import { transactionPage } from './transaction';
import { transactionsPage } from './transactions';
import { requestPage, tracePage } from '../trace/page';

export const PAGE_PROGRAMS: Partial<Readonly<Record<PageName, BeginPage>>> = {
	overview: overviewPage,
	transactions: transactionsPage,
	transaction: transactionPage,
	search: searchPage,
	live: livePage,
	queries: queriesPage,
	errors: errorsPage,
	external: externalPage,
	map: mapPage,
	compare: comparePage,
	doctor: doctorPage,
	request: requestPage,
	trace: tracePage,
};
